// Saving a figure: as SVG, as PNG, which is that SVG with pixels in place of shapes, and the values
// that are seen as CSV.

import { chosenAxes, makeAxesChoice } from "./axes_choice.mjs";
import { make } from "./dom.mjs";
import { fileName } from "./file_name.mjs";
import { giveFile } from "./give_file.mjs";
import { openDialog } from "./keys.mjs";
import { FigureDrawing } from "./svg.mjs";

/** @typedef {import("./axes_view.mjs").AxesView} AxesView */
/** @typedef {import("./figure_view.mjs").FigureView} FigureView */
/** @typedef {import("./worker_link.mjs").WorkerLink} WorkerLink */

/** @typedef {{title: boolean, ground: boolean, scale: number}} How scale: pixels for a CSS pixel */

const SCALES = [1, 2, 3, 4];

/** @param {FigureView} figure */
const laidOut = ({ axes }) => [...axes.values()].filter((view) => view.isLaidOut);

/** Asks with the limits that the drawing's ticks have, while more data come.
 * @template {"vectors" | "picture"} Kind @param {WorkerLink} worker @param {FigureView} figure
 * @param {Kind} kind @param {number} ratio of pixels to CSS pixels
 * @returns {Promise<[AxesView, any][]>} what the worker says of each axes */
function askAll(worker, figure, kind, ratio) {
    return Promise.all(
        laidOut(figure).map(async (view) => {
            const { shown: limits, description } = view;
            const answer = await worker.ask({ kind, axes: description.id, limits, ratio });
            return /** @type {[AxesView, any]} */ ([view, answer]);
        }),
    );
}

/** @param {AxesView} view what stands where its series will be */
const placeOf = ({ description }) => `<desc>series of ${description.id}</desc>`;

/** @param {WorkerLink} worker @param {FigureView} figure
 * @param {import("./theme.mjs").Colors} colors @param {How} how */
async function svgOf(worker, figure, colors, how) {
    const drawing = new FigureDrawing(figure, colors, how.title);
    let svg = drawing.svg({ ...how, scale: 1 }, placeOf);
    for (const [view, vectors] of await askAll(worker, figure, "vectors", 1)) {
        svg = svg.replace(placeOf(view), () => vectors.svg);
    }
    return new Blob([svg], { type: "image/svg+xml" });
}

/** @param {Blob} svg @returns {Promise<HTMLImageElement>} */
async function imageOf(svg) {
    const image = new Image();
    image.src = URL.createObjectURL(svg);
    await image.decode();
    URL.revokeObjectURL(image.src);
    return image;
}

/** @param {WorkerLink} worker @param {FigureView} figure
 * @param {import("./theme.mjs").Colors} colors @param {How} how @returns {Promise<Blob>} */
export async function pngOf(worker, figure, colors, how) {
    const { scale } = how;
    const drawing = new FigureDrawing(figure, colors, how.title);
    const svg = new Blob([drawing.svg(how)], { type: "image/svg+xml" });
    const boxes = new Map(laidOut(figure).map((view) => [view, drawing.boxOf(view.plot.over)]));
    const pictures = await askAll(worker, figure, "picture", scale);
    const frame = await imageOf(svg);
    const canvas = new OffscreenCanvas(drawing.width * scale, drawing.height * scale);
    const context = /** @type {OffscreenCanvasRenderingContext2D} */ (canvas.getContext("2d"));
    context.drawImage(frame, 0, 0, canvas.width, canvas.height);
    for (const [view, { bitmap }] of pictures) {
        // Axes that went meanwhile.
        const box = boxes.get(view);
        if (!bitmap || !box) continue;
        const { left, top, width, height } = box;
        context.drawImage(bitmap, left * scale, top * scale, width * scale, height * scale);
        bitmap.close();
    }
    return canvas.convertToBlob({ type: "image/png" });
}

/** Asks how, and saves. @param {WorkerLink} worker @param {FigureView} figure
 * @param {AxesView} view whose values are saved @param {import("./theme.mjs").Colors} colors */
export function showSave(worker, figure, view, colors) {
    const radio = (/** @type {string} */ value, /** @type {string} */ text, checked = false) =>
        make("label", {}, make("input", { type: "radio", name: "format", value, checked }), text);
    const box = (/** @type {string} */ name, /** @type {string} */ text) =>
        make("label", {}, make("input", { type: "checkbox", name, checked: true }), text);
    const scales = SCALES.map((scale) =>
        make("option", { value: scale, selected: scale === 2 }, `${scale} ×`),
    );
    const form = make(
        "form",
        { class: "save", method: "dialog" },
        make(
            "fieldset",
            {},
            make("legend", {}, "Format"),
            radio("png", "PNG, a picture", true),
            radio("svg", "SVG, shapes"),
            radio("csv", "CSV, the values that are seen"),
        ),
        make(
            "fieldset",
            { "data-for": "picture" },
            make("legend", {}, "Picture"),
            box("title", "Title"),
            box("ground", "Ground"),
            make("label", {}, "Scale", make("select", { name: "scale" }, ...scales)),
        ),
        make(
            "fieldset",
            { "data-for": "values", hidden: figure.axes.size < 2 },
            make("legend", {}, "Values"),
            make("label", {}, "Axes", makeAxesChoice(figure, view)),
        ),
        make("button", { class: "main" }, "Save"),
    );
    form.addEventListener("submit", () => void save(worker, figure, colors, new FormData(form)));
    openDialog("Save").append(form);
}

/** @param {WorkerLink} worker @param {FigureView} figure
 * @param {import("./theme.mjs").Colors} colors @param {FormData} form */
async function save(worker, figure, colors, form) {
    const format = String(form.get("format"));
    const how = {
        title: form.has("title"),
        ground: form.has("ground"),
        scale: Number(form.get("scale")),
    };
    const axes = chosenAxes(String(form.get("axes")));
    const only = format === "csv" && axes.length === 1 ? figure.axes.get(axes[0]) : null;
    const title = only?.description.title ?? "";
    const name = fileName(figure.description.title, title, new Date(), format);
    if (format === "csv") {
        const { text } = await worker.ask({ kind: "csv", axes });
        giveFile(new Blob([text], { type: "text/csv" }), name);
    } else {
        const draw = format === "svg" ? svgOf : pngOf;
        giveFile(await draw(worker, figure, colors, how), name);
    }
}

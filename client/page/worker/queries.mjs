// What the main thread asks for: values at a place, tables, pictures.

import { csvOf, tableOf } from "./table.mjs";
import { hasSecond } from "./limits.mjs";
import { nearestOf } from "./nearest.mjs";
import { paintAxes, scalesOf } from "./painter.mjs";
import { canvasSize } from "./stage.mjs";
import { CanvasSurface } from "./surface.mjs";
import { SvgSurface } from "./svg.mjs";

/** @typedef {import("../messages.mjs").ToMain} ToMain */
/** @typedef {import("../messages.mjs").ToWorker} ToWorker */
/** @typedef {import("./stage.mjs").Stage} Stage */
/** @typedef {Extract<ToWorker, {kind: "probe" | "csv" | "table" | "vectors" | "picture"}>} Query */
/** @typedef {(message: ToMain, moved?: Transferable[]) => void} Post */

/**
 * Axes, as they are seen.
 * @typedef {object} Seen
 * @property {import("./scene.mjs").Item} axes
 * @property {import("../messages.mjs").Limits} limits
 * @property {import("./stage.mjs").AreaSize} size
 * @property {import("./scene.mjs").Item[]} series that are visible
 */

/** @param {Stage} stage @param {number} id @returns {Seen | null} null: they are not seen */
function lookAt(stage, id) {
    const axes = stage.scene.find(id);
    const limits = stage.limits().get(id);
    const size = stage.sizes.get(id);
    if (!axes || !limits || !size) return null;
    const series = axes.childrenOf("series").filter(stage.shows);
    return { axes, limits, size, series };
}

/** @param {Stage} stage @param {number[]} ids @returns {Seen[]} */
function lookAtAll(stage, ids) {
    return ids.flatMap((id) => lookAt(stage, id) ?? []);
}

/** Each query gets its answer: somebody waits for it.
 * @param {Stage} stage @param {Query} query @param {Post} post */
export async function answerQuery(stage, query, post) {
    try {
        await answer(stage, query, post);
    } catch (error) {
        const text = error instanceof Error ? error.message : String(error);
        post({ kind: "unanswered", id: query.id, text: `${query.kind}: ${text}` });
    }
}

/** @param {Stage} stage @param {Query} query @param {Post} post */
function answer(stage, query, post) {
    switch (query.kind) {
        case "probe":
            return post({ kind: "probed", id: query.id, values: probe(stage, query) });
        case "csv":
            return post({ kind: "csv", id: query.id, text: csvOf(lookAtAll(stage, query.axes)) });
        case "table":
            return post({
                kind: "table",
                id: query.id,
                ...tableOf(lookAtAll(stage, query.axes), query.rows),
            });
        case "vectors":
            return answerVectors(stage, query, post);
        case "picture":
            return answerPicture(stage, query, post);
        default:
            throw new Error("nothing to be answered");
    }
}

/** @param {Stage} stage @param {Extract<ToWorker, {kind: "probe"}>} query */
function probe(stage, { axes, x, y, reach }) {
    const seen = lookAt(stage, axes);
    if (!seen) return [];
    const scales = scalesOf(seen.axes, seen.limits, seen.size);
    return seen.series.flatMap((series) => {
        const isSecond = series.properties.axis === "y2" && hasSecond(seen.axes);
        const scale = { x: scales.x, y: isSecond ? scales.y2 : scales.y };
        return nearestOf(series, scale, { x, y, reach }) ?? [];
    });
}

/** @param {Stage} stage @param {Extract<ToWorker, {kind: "vectors"}>} query @param {Post} post */
async function answerVectors(stage, { id, axes, limits }, post) {
    const seen = lookAt(stage, axes);
    const { width, height } = canvasSize({ width: 1, height: 1, ...seen?.size, ratio: 1 });
    const surface = new SvgSurface(width, height);
    if (seen) paintAxes(seen.axes, limits, { width, height, ratio: 1 }, stage, surface);
    post({ kind: "vectors", id, width, height, svg: await surface.finish() });
}

/** @param {Stage} stage @param {Extract<ToWorker, {kind: "picture"}>} query @param {Post} post */
function answerPicture(stage, { id, axes, limits, ratio }, post) {
    const seen = lookAt(stage, axes);
    if (!seen) return post({ kind: "picture", id, bitmap: null });
    const size = canvasSize({ ...seen.size, ratio });
    const surface = new CanvasSurface(new OffscreenCanvas(size.width, size.height));
    paintAxes(seen.axes, limits, size, stage, surface);
    const bitmap = surface.take();
    return post({ kind: "picture", id, bitmap }, [bitmap]);
}

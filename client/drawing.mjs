// Draws the axes of a figure on a canvas: uPlot draws axes, grid and lines; paths, points and
// texts are drawn into it.

import uPlot from "/uplot/uPlot.esm.js";

import { SAMPLE_RATE, timesOf } from "./figures.mjs";
import { PointPicture } from "./points.mjs";

/** @typedef {import("./figures.mjs").Item} Item */

const PIXELS_PER_POINT = 4 / 3;
const WEIGHTS = { light: 300, normal: 400, demi: 600, bold: 700 };
/** Pixels of width, below which a figure does without labels, and draws everything smaller. */
const NARROW = 480;
const WIDE = 560;
const AXIS_FONT = "12px system-ui, sans-serif";
/** Elements of a line, from which on it is drawn as columns. */
const DENSE = 5000;
/** Of the axes' width. */
const LONGEST_TEXT = 0.96;
const AXIS_SIZE = { x: 44, y: 56 };

/** What all series have: in this mode of uPlot each has its own places on both axes. */
const SERIES = {
    facets: [
        { scale: "x", auto: false },
        { scale: "y", auto: false },
    ],
    points: { show: false },
};

/** @returns {{text: string, grid: string, mark: string, ground: string}} the page's colours of now */
function themeColors() {
    const style = getComputedStyle(document.documentElement);
    const color = (/** @type {string} */ name) => style.getPropertyValue(name).trim();
    return {
        text: color("--text"),
        grid: color("--grid"),
        mark: color("--mark"),
        ground: color("--panel"),
    };
}

/** @param {Item} item @param {string} otherwise */
function cssColor(item, otherwise) {
    if (!item.hasColor) return otherwise;
    return `rgb(${item.color.map((part) => Math.round(part * 255)).join(" ")})`;
}

/** Whether a line has many more elements than the chart has pixels. @param {Item} item */
function isDense(item) {
    return item.type === "line" && item.count > DENSE;
}

/** Canvas pixels in a pixel of a figure that is wide enough. @param {uPlot} plot */
function scaleOf(plot) {
    return uPlot.pxRatio * Math.min(1, plot.width / WIDE);
}

/** Pixels of a point's radius, by the earthquake's magnitude, which may be unknown: not a number.
 * @param {number} magnitude */
function radiusOf(magnitude) {
    return 1 + (magnitude > 0 ? 0.9 * magnitude : 0);
}

/** @param {uPlot} plot @param {Item} path two numbers an element @returns {Path2D} */
function outline(plot, path) {
    const stroke = new Path2D();
    const { values } = path.data;
    let broken = true;
    for (let i = 0; i < values.length; i += 2) {
        if (Number.isNaN(values[i])) {
            broken = true;
            continue;
        }
        const x = plot.valToPos(values[i], "x", true);
        const y = plot.valToPos(values[i + 1], "y", true);
        if (broken) stroke.moveTo(x, y);
        else stroke.lineTo(x, y);
        broken = false;
    }
    return stroke;
}

/** Draws a line with many elements a pixel: what falls into a column of pixels is one bar from the
 * least to the greatest. Stroking a path that winds so often takes some twenty times as long.
 * @param {uPlot} plot @param {Item} line @param {{stroke: string, width: number}} style
 * @returns {null} nothing is left to stroke */
function fillColumns(plot, line, { stroke, width }) {
    const { ctx, bbox } = plot;
    const { values } = line.data;
    const thick = width * uPlot.pxRatio;
    const columnOf = (/** @type {number} */ index) =>
        Math.floor(plot.valToPos((line.first + index) / SAMPLE_RATE, "x", true) - bbox.left);
    const perElement = (columnOf(values.length) - columnOf(0)) / values.length;
    const from = Math.max(0, Math.floor(-columnOf(0) / perElement));
    const begin = plot.valToPos((line.first + from) / SAMPLE_RATE, "x", true);
    ctx.save();
    ctx.beginPath();
    ctx.rect(bbox.left, bbox.top, bbox.width, bbox.height);
    ctx.clip();
    ctx.fillStyle = stroke;
    let least = values[from];
    let greatest = least;
    let column = Math.floor(begin);
    for (let i = from; i <= values.length; ++i) {
        const here = Math.floor(begin + (i - from) * perElement);
        if (here !== column || i === values.length) {
            const top = plot.valToPos(greatest, "y", true);
            const bottom = plot.valToPos(least, "y", true);
            ctx.fillRect(column, top - thick / 2, 1, bottom - top + thick);
            // The next bar begins where this one ends, so that there is no gap.
            least = greatest = values[i - 1];
            column = here;
        }
        least = Math.min(least, values[i]);
        greatest = Math.max(greatest, values[i]);
    }
    ctx.restore();
    return null;
}

/** Points on a canvas of their own, to which those that are appended are added. */
class PointLayer {
    #picture = new PointPicture(1, 1, [0, 0, 0]);
    #pixels = new ImageData(1, 1);
    #canvas = new OffscreenCanvas(1, 1);
    /** What the picture is made for, and which points it shows how many of. */
    #format = "";
    #content = "";
    #drawn = 0;

    /** @param {uPlot} plot @param {Item} points four numbers an element */
    draw(plot, points) {
        const { left, top, width, height } = plot.bbox;
        const { x, y } = plot.scales;
        const format = [width, height, points.color].join();
        if (this.#format !== format) {
            this.#format = format;
            this.#picture = new PointPicture(width, height, points.color);
            this.#pixels = new ImageData(width, height);
            this.#canvas = new OffscreenCanvas(width, height);
            this.#content = "";
        }
        const content = [x.min, x.max, y.min, y.max, points.generation].join();
        const isNew = this.#content !== content;
        if (isNew) {
            this.#content = content;
            this.#picture.clear();
            this.#drawn = 0;
        }
        if (isNew || this.#drawn !== points.count) this.#add(plot, points);
        plot.ctx.drawImage(this.#canvas, left, top);
    }

    /** @param {uPlot} plot @param {Item} points */
    #add(plot, points) {
        const picture = this.#picture;
        const { x, y } = plot.scales;
        const perX = picture.width / (Number(x.max) - Number(x.min));
        const perY = picture.height / (Number(y.max) - Number(y.min));
        const { count, columns } = points;
        const { values } = points.data;
        const scale = scaleOf(plot);
        for (; this.#drawn < count; ++this.#drawn) {
            const at = this.#drawn * columns;
            picture.stamp(
                (values[at] - Number(x.min)) * perX,
                (Number(y.max) - values[at + 1]) * perY,
                radiusOf(values[at + 3]) * scale,
            );
        }
        picture.write(new Uint32Array(this.#pixels.data.buffer));
        this.#canvas.getContext("2d")?.putImageData(this.#pixels, 0, 0);
    }
}

/** One axes object on the page. */
export class AxesView {
    #host;
    /** @type {uPlot | null} */
    #plot = null;
    /** Built anew when this changes. */
    #key = "";
    #width = 0;
    #colors = themeColors();
    /** @type {Item} */
    #axes;
    /** Marked by the keyboard, from 0 to 1 from the lower left. @type {[number, number] | null} */
    mark = null;

    /** @param {HTMLElement} host an empty element, filled with the canvas @param {Item} axes */
    constructor(host, axes) {
        this.#host = host;
        this.#axes = axes;
    }

    /** The width or the colours may have changed. */
    layoutChanged() {
        this.#key = "";
    }

    /** @param {Item} axes the same object, or its successor */
    paint(axes) {
        if (axes !== this.#axes) this.#key = "";
        this.#axes = axes;
        const { children, labels, ticks } = axes;
        const looks = children.map((c) => [c.handle, c.color, c.hasColor, c.width, isDense(c)]);
        const key = JSON.stringify([labels, ticks, looks]);
        if (key !== this.#key) {
            this.#build();
            this.#key = key;
        }
        const plot = /** @type {uPlot} */ (this.#plot);
        const { x, y } = axes.limits;
        plot.batch(() => {
            plot.setData(this.#data(), false);
            plot.setScale("x", { min: x[0], max: x[1] });
            plot.setScale("y", { min: y[0], max: y[1] });
        });
    }

    destroy() {
        this.#plot?.destroy();
        this.#host.remove();
    }

    /** The values where somebody points, null outside the axes.
     * @param {MouseEvent} event @returns {[number, number] | null} */
    placeOf(event) {
        if (!this.#plot) return null;
        const box = this.#plot.over.getBoundingClientRect();
        const across = (event.clientX - box.left) / box.width;
        const up = (box.bottom - event.clientY) / box.height;
        const inside = across >= 0 && across <= 1 && up >= 0 && up <= 1;
        return inside ? this.valuesAt([across, up]) : null;
    }

    /** @param {[number, number]} position from 0 to 1 from the lower left
     * @returns {[number, number]} */
    valuesAt([across, up]) {
        const { x, y } = this.#axes.limits;
        return [x[0] + across * (x[1] - x[0]), y[0] + up * (y[1] - y[0])];
    }

    #build() {
        this.#plot?.destroy();
        this.#colors = themeColors();
        this.#width = Math.max(200, this.#host.clientWidth);
        this.#plot = new uPlot(this.#options(), this.#data(), this.#host);
    }

    /** @returns {uPlot.Options} */
    #options() {
        const series = this.#drawn().map((item) => this.#series(item));
        return {
            mode: 2,
            width: this.#width,
            height: Math.round(this.#width / 2),
            pxAlign: 0,
            legend: { show: false },
            cursor: { show: false },
            select: { show: false, left: 0, top: 0, width: 0, height: 0 },
            scales: {
                x: { time: false, auto: false, range: () => this.#axes.limits.x },
                y: { auto: false, range: () => this.#axes.limits.y },
            },
            axes: [this.#axis("x"), this.#axis("y")],
            // uPlot wants at least one.
            series: [{}, ...(series.length > 0 ? series : [{ ...SERIES, show: false }])],
            hooks: { draw: [(plot) => this.#drawTexts(plot)] },
        };
    }

    /** @param {"x" | "y"} scale @returns {uPlot.Axis} */
    #axis(scale) {
        const { labels, ticks } = this.#axes;
        const { text, grid } = this.#colors;
        const label = labels[scale] && this.#width >= NARROW ? labels[scale] : undefined;
        const chosen = scale === "x" && ticks;
        return {
            scale,
            side: scale === "x" ? 2 : 3,
            label,
            labelSize: 18,
            labelFont: AXIS_FONT,
            font: AXIS_FONT,
            size: AXIS_SIZE[scale] - (label ? 12 : 8),
            stroke: text,
            grid: { stroke: grid, width: 1 },
            ticks: { stroke: grid, width: 1, size: 4 },
            ...(chosen && { splits: () => chosen.x, values: () => chosen.labels }),
        };
    }

    /** @param {Item} item @returns {uPlot.Series} */
    #series(item) {
        const shared = {
            ...SERIES,
            stroke: cssColor(item, this.#colors.text),
            width: item.width * PIXELS_PER_POINT,
        };
        if (item.type === "line" && isDense(item)) {
            return { ...shared, paths: (plot) => fillColumns(plot, item, shared) };
        }
        if (item.type === "line") return { ...shared, paths: uPlot.paths.linear?.() };
        if (item.type === "path") {
            return { ...shared, paths: (plot) => ({ stroke: outline(plot, item), flags: 0 }) };
        }
        const layer = new PointLayer();
        return {
            ...shared,
            paths: (plot) => {
                if (item.visible) layer.draw(plot, item);
                return null;
            },
        };
    }

    /** What is a series, from back to front. */
    #drawn() {
        return this.#axes.children.filter((item) => item.type !== "text");
    }

    /** @returns {any} uPlot's types do not know typed arrays in this mode */
    #data() {
        const series = this.#drawn().map((item) => {
            if (item.type === "line" && !isDense(item)) return [timesOf(item), item.data.values];
            return [item.data.values, item.data.values];
        });
        return [null, ...(series.length > 0 ? series : [[[], []]])];
    }

    /** @param {uPlot} plot */
    #drawTexts(plot) {
        const { ctx, bbox } = plot;
        const scale = scaleOf(plot);
        ctx.save();
        // A rim in the colour of the ground keeps texts readable on what they cover.
        ctx.strokeStyle = this.#colors.ground;
        ctx.lineJoin = "round";
        ctx.lineWidth = 3 * scale;
        for (const item of this.#axes.children) {
            if (item.type !== "text" || !item.visible || !item.text) continue;
            const [across, up] = item.position;
            const { family, points, weight, angle } = item.font;
            const size = points * PIXELS_PER_POINT * scale;
            ctx.font = `${angle} ${WEIGHTS[weight] ?? 400} ${size}px ${family}`;
            ctx.fillStyle = cssColor(item, this.#colors.text);
            // A text grows away from the edge that it is near.
            ctx.textAlign = across > 0.5 ? "right" : "left";
            ctx.textBaseline = up > 0.5 ? "top" : "bottom";
            const x = bbox.left + across * bbox.width;
            const y = bbox.top + (1 - up) * bbox.height;
            ctx.strokeText(item.text, x, y, bbox.width * LONGEST_TEXT);
            ctx.fillText(item.text, x, y, bbox.width * LONGEST_TEXT);
        }
        if (this.mark) this.#drawMark(plot, this.mark);
        ctx.restore();
    }

    /** @param {uPlot} plot @param {[number, number]} position */
    #drawMark({ ctx, bbox }, [across, up]) {
        const x = bbox.left + across * bbox.width;
        const y = bbox.top + (1 - up) * bbox.height;
        ctx.strokeStyle = this.#colors.mark;
        ctx.lineWidth = 2 * uPlot.pxRatio;
        const arm = 10 * uPlot.pxRatio;
        ctx.beginPath();
        ctx.moveTo(x - arm, y);
        ctx.lineTo(x + arm, y);
        ctx.moveTo(x, y - arm);
        ctx.lineTo(x, y + arm);
        ctx.stroke();
    }
}

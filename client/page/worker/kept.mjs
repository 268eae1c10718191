// Draws axes again and again: what did not change is drawn once, and copied. A coast or an image below
// points that move costs next to nothing.

import { colorsOf, drawnSeries, paintAxes } from "./painter.mjs";
import { CanvasSurface } from "./surface.mjs";

/** @typedef {import("./painter.mjs").Size} Size */
/** @typedef {import("./scene.mjs").Item} Item */
/** @typedef {import("../messages.mjs").Limits} Limits */
/** @typedef {{theme: import("../messages.mjs").Theme, hidden: Set<number>}} Look */

export class KeptPainter {
    #surface;
    /** How many of the first series are kept, and drawn. */
    #count = 0;
    /** @type {CanvasSurface | null} */
    #kept = null;
    /** What the last picture was drawn with, and its series as they were. */
    #look = "";
    /** @type {string[]} */
    #series = [];

    /** @param {OffscreenCanvas} canvas */
    constructor(canvas) {
        this.#surface = new CanvasSurface(canvas);
    }

    /** What is kept may be wrong. */
    forget() {
        this.#count = 0;
        this.#series = [];
    }

    /** Draws all of it anew. @param {Item} axes @param {Limits} limits @param {Size} size
     * @param {Look} look @returns {Error[]} why some series were not drawn */
    paint(axes, limits, size, look) {
        const how = JSON.stringify([axes.changes, limits, size, look.theme]);
        const same = this.#countSame(axes, how, look);
        if (same < this.#count) this.#count = 0;
        if (this.#count === 0 && same > 0) {
            this.#kept ??= new CanvasSurface(new OffscreenCanvas(size.width, size.height));
            this.#kept.begin(size);
            const errors = paintAxes(axes, limits, size, look, this.#kept, { to: same });
            if (errors.length === 0) this.#count = same;
        }
        this.#surface.begin(size);
        const from = this.#count;
        if (this.#kept && from > 0) {
            this.#surface.context.drawImage(this.#kept.context.canvas, 0, 0);
        }
        return paintAxes(axes, limits, size, look, this.#surface, { from });
    }

    /** What was drawn: it is gone from the canvas. */
    take() {
        return this.#surface.take();
    }

    /** How many series are as they were, before the first one that is not. @param {Item} axes
     * @param {string} drawnWith @param {Look} look */
    #countSame(axes, drawnWith, { theme, hidden }) {
        const colors = colorsOf(axes, theme);
        const series = drawnSeries(axes, hidden).map(({ id, changes }) =>
            [id, changes, colors.get(id)].join(),
        );
        const before = this.#look === drawnWith ? this.#series : [];
        this.#look = drawnWith;
        this.#series = series;
        return Math.max(
            series.findIndex((one, i) => one !== before[i]),
            0,
        );
    }
}

// A range that is selected by keys: from a corner to where the crosshair is. It is uPlot's selection.

/** @typedef {import("./axes_view.mjs").AxesView} AxesView */

/** CSS pixels, of the plotting area. @typedef {{left: number, top: number}} Place */

/** What lies between two places; along an axis in which they are the same, all.
 * @param {Place} a @param {Place} b @param {{width: number, height: number}} size */
export function areaBetween(a, b, size) {
    const [left, top] = [Math.min(a.left, b.left), Math.min(a.top, b.top)];
    const [width, height] = [Math.abs(a.left - b.left), Math.abs(a.top - b.top)];
    const isPoint = width === 0 && height === 0;
    return {
        ...(width > 0 || isPoint ? { left, width } : { left: 0, width: size.width }),
        ...(height > 0 || isPoint ? { top, height } : { top: 0, height: size.height }),
    };
}

export class KeySelection {
    #view;
    /** @type {Place | null} */
    #corner = null;

    /** @param {AxesView} view */
    constructor(view) {
        this.#view = view;
    }

    get isBegun() {
        return this.#corner !== null;
    }

    /** At the crosshair. */
    begin() {
        this.#corner = this.#place();
    }

    /** Reaches to the crosshair, if it has begun. */
    extend() {
        const place = this.#place();
        if (!this.#corner || place.left < 0) return;
        const area = areaBetween(this.#corner, place, this.#view.size);
        this.#view.plot.setSelect(area, false);
    }

    /** What is selected stays so. */
    end() {
        this.#corner = null;
    }

    forget() {
        if (this.#corner) this.#view.clearSelection();
        this.#corner = null;
    }

    /** @returns {Place} */
    #place() {
        const { left = 0, top = 0 } = this.#view.plot.cursor;
        return { left, top };
    }
}

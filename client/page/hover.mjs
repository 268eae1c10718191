// The crosshair's values: which elements lie there is asked of the worker, again whenever the data
// have changed.

import { make } from "./dom.mjs";
import { valueAt } from "./scale.mjs";
import { momentText, numberText } from "./ticks.mjs";

/** @typedef {import("./axes_view.mjs").AxesView} AxesView */
/** @typedef {import("./messages.mjs").Probed} Probed */
/** @typedef {import("./messages.mjs").SeriesDescription} SeriesDescription */
/** @typedef {import("./navigation.mjs").Which} Which */

const MOST_ROWS = 12;
/** Of what is shown, that a value is written with. */
const RESOLUTION = 1e4;
/** Of that, what is left of 0 by zooming there and back. */
const ROUNDED = 1e-6;

/** A value of an axis, as exactly as it can be told apart there. @param {AxesView} view
 * @param {Which} which @param {number} value */
export function valueText(view, which, value) {
    const [low, high] = view.shown[which] ?? [0, 1];
    const step = (high - low) / RESOLUTION;
    if (view.scaleOf(which) === "time") return momentText(value, step);
    if (view.scaleOf(which) === "linear" && Math.abs(value) < ROUNDED * step) return "0";
    const largest = Math.max(Math.abs(value), Math.abs(low), Math.abs(high));
    const digits = view.scaleOf(which) === "log" ? 5 : Math.ceil(Math.log10(largest / step));
    return numberText(value, Math.max(3, Math.min(16, digits)));
}

/** @param {AxesView} view @param {Which} which @param {number} value */
function withUnit(view, which, value) {
    const unit = view.description[which]?.unit ?? "";
    const space = unit === "" || unit.startsWith("°") ? "" : " ";
    return valueText(view, which, value) + space + unit;
}

/** What is said of an element. @param {AxesView} view @param {Probed} probed
 * @param {SeriesDescription} series
 * @param {boolean} [isAlone] without a crosshair that says where it is */
function elementText(view, { values }, { type, axis }, isAlone = false) {
    const { x, y, z, low, high, value, minus, plus } = values;
    const at = `${withUnit(view, "x", x)}, `;
    if (z !== undefined) {
        return (isAlone ? `${at + withUnit(view, axis, y)}: ` : "") + numberText(z, 5);
    }
    const text = (/** @type {number} */ number) => withUnit(view, axis, number);
    const parts = [];
    if (value !== undefined) parts.push(`${numberText(value, 5)} at`);
    if (isAlone || type === "scatter" || value !== undefined) parts.push(at.trim());
    if (low !== undefined) parts.push(`${text(low)} … ${text(high)}`);
    else parts.push(text(y));
    if (minus !== undefined) parts.push(`−${numberText(minus, 4)} +${numberText(plus, 4)}`);
    return parts.join(" ");
}

/** What is said of a picked element, or of the place where there was none.
 * @param {AxesView} view @param {Probed | undefined} probed @param {{x: number, y: number}} place of
 *   the data @returns {string} */
export function pickedText(view, probed, { x, y }) {
    const series = view.description.series.find(({ id }) => id === probed?.series);
    if (!probed || !series) return `${withUnit(view, "x", x)}, ${withUnit(view, "y", y)}`;
    return `${series.name || series.type} ${elementText(view, probed, series, true)}`;
}

/** Types that have a value for each x. */
const ALONG_X = ["line", "area", "band", "bars", "errorBars"];

/** @typedef {{at: string, rows: {name: string, text: string, color: string, probed: Probed}[]}} Told */

/** CSS pixels from the upper left corner of the plotting area. @typedef {{left: number, top: number}} Place */

/** The crosshair of axes. */
export class Crosshair {
    #view;
    #ask;
    #say;
    #box = make("div", { class: "tip", hidden: true });
    /** @type {HTMLElement[]} */
    #marks = [];
    #isAsked = false;
    #isStale = false;
    #isToSay = false;
    /** @type {Told | null} what it shows */
    told = null;

    /** @param {AxesView} view @param {(x: number, y: number | null) => Promise<Probed[]>} ask
     * @param {(text: string) => void} say to those who do not see it */
    constructor(view, ask, say) {
        this.#view = view;
        this.#ask = ask;
        this.#say = say;
        view.chart.append(this.#box);
    }

    get isShown() {
        return this.#view.isLaidOut && Number(this.#view.plot.cursor.left) >= 0;
    }

    /** The crosshair has moved, or the data have changed. Only who moves it is told in words.
     * @param {boolean} hasMoved */
    refresh(hasMoved) {
        if (!this.#view.isLaidOut) return;
        this.#isToSay ||= hasMoved;
        this.#isStale = true;
        if (!this.#isAsked) void this.#update();
    }

    /** Moves it by parts of the axes, from the middle at first. @param {number} x @param {number} y */
    move(x, y) {
        const { plot, size } = this.#view;
        const { left = -1, top = -1 } = plot.cursor;
        const within = (/** @type {number} */ value, /** @type {number} */ most) =>
            Math.min(most, Math.max(0, value));
        const from =
            left >= 0
                ? { left, top: top >= 0 ? top : size.height / 2 }
                : { left: size.width / 2, top: size.height / 2 };
        this.#set({
            left: within(from.left + x * size.width, size.width),
            top: within(from.top - y * size.height, size.height),
        });
    }

    leave() {
        this.#set({ left: -10, top: -10 });
    }

    /** Where it is: of the plotting area from 0 to 1 from the lower left. */
    get place() {
        const { plot, size } = this.#view;
        if (!this.isShown) return null;
        return {
            x: Number(plot.cursor.left) / size.width,
            y: 1 - Number(plot.cursor.top) / size.height,
        };
    }

    /** What it shows, to be copied: lines of name, x and value. */
    get text() {
        if (!this.told) return "";
        const rows = this.told.rows.map(({ name, text }) => `${name}\t${text}`);
        return [this.told.at, ...rows].join("\n");
    }

    /** @param {Place} place */
    #set(place) {
        const { plot } = this.#view;
        // The third argument, which uPlot's types leave out, tells the linked axes.
        /** @type {any} */ (plot).setCursor(place, true, true);
    }

    #hide() {
        this.#box.hidden = true;
        this.told = null;
        for (const mark of this.#marks) mark.hidden = true;
    }

    async #update() {
        this.#isAsked = true;
        try {
            while (this.#isStale && this.isShown) {
                this.#isStale = false;
                const { left = 0, top = -1 } = this.#view.plot.cursor;
                const values = await this.#ask(left, top >= 0 ? top : null);
                if (!this.isShown) break;
                this.#show(values, { left, top });
                // It has moved on: what lies there now is said instead.
                if (!this.#isStale) this.#sayIt();
            }
        } finally {
            this.#isAsked = false;
        }
        if (!this.isShown) this.#hide();
    }

    /** @param {Probed[]} values @param {Place} place that they were asked for */
    #show(values, place) {
        const { description } = this.#view;
        const rows = values.flatMap((probed) => {
            const series = description.series.find(({ id }) => id === probed.series);
            if (!series) return [];
            const text = elementText(this.#view, probed, series);
            return [{ name: series.name || series.type, text, color: series.color, probed }];
        });
        this.told = { at: this.#heading(place), rows: rows.slice(0, MOST_ROWS) };
        this.#showBox(place);
        this.#showMarks();
    }

    #sayIt() {
        if (!this.#isToSay || !this.told) return;
        this.#isToSay = false;
        const said = this.told.rows.map(({ name, text }) => `${name} ${text}`);
        this.#say([this.told.at, ...said].join("; "));
    }

    /** @param {Place} place */
    #heading({ left, top }) {
        const { description, size, shown } = this.#view;
        const x = valueAt(left / size.width, shown.x, this.#view.scaleOf("x"));
        const name = description.x.label || (description.x.scale === "time" ? "" : "x");
        const text = `${name} ${withUnit(this.#view, "x", x)}`.trim();
        const isPlane = !description.series.some(({ type }) => ALONG_X.includes(type));
        if (!isPlane || top < 0) return text;
        const y = valueAt(1 - top / size.height, shown.y, this.#view.scaleOf("y"));
        return `${text}, ${description.y.label || "y"} ${withUnit(this.#view, "y", y)}`;
    }

    /** @param {Place} place */
    #showBox({ left, top }) {
        const { told } = this;
        if (!told) return;
        const lines = told.rows.map(({ name, text, color }) => {
            const swatch = make("span", { class: "swatch" });
            swatch.style.setProperty("--color", color);
            return make(
                "div",
                {},
                swatch,
                make("span", { class: "name" }, name),
                make("b", {}, text),
            );
        });
        this.#box.replaceChildren(make("div", { class: "at" }, told.at), ...lines);
        this.#box.hidden = false;
        const { plot, size } = this.#view;
        const box = plot.over;
        const isRight = left < size.width / 2;
        const beside = box.offsetLeft + (isRight ? left + 14 : left - 14 - this.#box.offsetWidth);
        const x = Math.min(beside, this.#view.chart.clientWidth - this.#box.offsetWidth);
        const y = Math.min(Math.max(0, top) + 14, size.height - this.#box.offsetHeight - 4);
        this.#box.style.transform = `translate(${Math.max(0, x)}px, ${box.offsetTop + Math.max(0, y)}px)`;
    }

    #showMarks() {
        const { plot } = this.#view;
        const rows = this.told?.rows ?? [];
        rows.forEach(({ color, probed }, i) => {
            this.#marks[i] ??= make("div", { class: "mark" });
            const mark = this.#marks[i];
            if (mark.parentElement !== plot.over) plot.over.append(mark);
            mark.hidden = probed.values.z !== undefined;
            mark.style.setProperty("--color", color);
            mark.style.transform = `translate(${probed.px}px, ${probed.py}px)`;
        });
        for (const mark of this.#marks.slice(rows.length)) mark.hidden = true;
    }
}

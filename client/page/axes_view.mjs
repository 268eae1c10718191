// One axes on the page: uPlot draws axes and grid and has cursor and selection; below lies a canvas
// with the series, into which the worker draws, or which gets the worker's pictures.

import uPlot from "uplot";

import { make, setText } from "./dom.mjs";
import { Legend } from "./legend.mjs";
import { homeView, isSame, shownLimits, stretch } from "./navigation.mjs";
import { FONT, LINE_HEIGHT, textWidth } from "./text_width.mjs";
import { chooseTicks } from "./ticks.mjs";

/** @typedef {import("./messages.mjs").AxesDescription} AxesDescription */
/** @typedef {import("./messages.mjs").AxisDescription} AxisDescription */
/** @typedef {import("./messages.mjs").Limits} Limits */
/** @typedef {import("./navigation.mjs").View} View */
/** @typedef {import("./navigation.mjs").Which} Which */
/** @typedef {import("./ticks.mjs").Ticks} Ticks */

const TICK = 5;
const TICK_GAP = 4;
/** Widths of axes are multiples of this, so that the picture does not jump with each digit. */
const SIZE_STEP = 8;
/** Milliseconds after which the worker's limits are taken where it does not follow somebody's. */
const PATIENCE = 1000;
/** The whole axis, for uPlot: values are turned into fractions before it sees them. */
const WHOLE = /** @type {[number, number]} */ ([0, 1]);

/**
 * @typedef {object} Surroundings
 * @property {import("./theme.mjs").Colors} colors
 * @property {(view: AxesView) => void} onSize the plotting area has another size
 * @property {(view: AxesView) => void} onCursor uPlot's cursor has moved
 * @property {(view: AxesView) => void} onSelect an area was selected
 * @property {(series: number, visible: boolean) => void} onVisible somebody hides or shows one
 */

/** Name, unit and what all numbers have in common; of these only the name may be cut off. */
class Label {
    element;
    /** Name, unit and note. */
    parts = ["", "", ""];
    #name = make("span", { class: "name" });
    #unit = make("span", { class: "unit" });
    #note = make("span", { class: "note" });

    /** @param {Which} which */
    constructor(which) {
        this.element = make("div", { class: `label ${which}` }, this.#name, this.#unit, this.#note);
    }

    /** @param {AxisDescription | null} axis @param {string} note */
    show(axis, note) {
        this.parts = [axis?.label ?? "", axis?.unit ? `(${axis.unit})` : "", note];
        [this.#name, this.#unit, this.#note].forEach((element, i) =>
            setText(element, this.parts[i]),
        );
        this.element.hidden = !(axis?.label || axis?.unit || note);
    }
}

/** An axes' elements. */
export class AxesView {
    description;
    /** What somebody looks at. @type {View} */
    view = homeView();
    /** Between which the series on the canvas are drawn. @type {Limits} */
    drawn;
    canvas = make("canvas");
    chart = make("div", { class: "chart" });
    title = make("h3");
    legend;
    colorBars = make("div", { class: "color-bars" });
    labels = { x: new Label("x"), y: new Label("y"), y2: new Label("y2") };
    element;
    #surroundings;
    /** @type {uPlot | null} */
    #plot = null;
    /** Lets a plot that is made, with its legend, begin in the room that this leaves.
     * @type {{plot: uPlot, begin: () => void} | null} */
    #next = null;
    /** uPlot is made anew when this changes. */
    #key = "";
    /** @type {Record<Which, Ticks>} */
    ticks = {
        x: { ticks: [], note: "" },
        y: { ticks: [], note: "" },
        y2: { ticks: [], note: "" },
    };
    /** Of axes and padding, in CSS pixels; they grow until there is another room. */
    #sizes = { y: 0, y2: 0, right: 0 };
    /** Of padding, so that axes above each other have the same width. */
    #extra = { left: 0, right: 0 };
    /** Of the plotting area, in CSS pixels. */
    size = { width: 0, height: 0, ratio: 1 };
    #viewed = 0;
    #isTaken = false;
    /** Of a canvas that gets pictures; null: the worker draws. @type {ImageBitmapRenderingContext | null} */
    #pictures = null;

    /** @param {AxesDescription} description @param {Surroundings} surroundings */
    constructor(description, surroundings) {
        this.description = description;
        this.drawn = description.limits;
        this.#surroundings = surroundings;
        this.legend = new Legend(surroundings.onVisible);
        const { x, y, y2 } = this.labels;
        const plot = make(
            "div",
            { class: "plot" },
            y.element,
            this.chart,
            y2.element,
            this.colorBars,
            x.element,
        );
        this.element = make("div", { class: "axes" }, this.title, this.legend.element, plot);
    }

    /** @param {AxesDescription} description */
    describe(description) {
        this.description = description;
        this.drawn = description.limits;
        setText(this.title, description.title);
        this.title.hidden = description.title === "";
        const key = JSON.stringify([description.linkX, description.y2 !== null]);
        if (key !== this.#key) this.#make();
        this.#key = key;
        this.legend.show(description);
        this.#showLabels();
    }

    /** The limits that are shown: somebody's, or those that are drawn. */
    get shown() {
        return shownLimits(this.view, this.drawn);
    }
    /** @param {Which} which */
    scaleOf(which) {
        return this.description[which]?.scale ?? "linear";
    }
    /** uPlot's part, once it is laid out. */
    get plot() {
        if (!this.#plot) throw new Error("axes without a size");
        return this.#plot;
    }
    get isLaidOut() {
        return this.#plot !== null;
    }

    /** Fits everything into the room that there is. */
    layOut() {
        const { width, height } = this.#room();
        if (this.#plot) {
            if (this.#plot.width !== width || this.#plot.height !== height) {
                this.#sizes = { y: 0, y2: 0, right: 0 };
                this.#plot.batch(() => this.#plot?.setSize({ width, height }));
            }
            this.redraw();
            return;
        }
        if (!this.#next) return;
        const { plot, begin } = this.#next;
        this.#next = null;
        this.#plot = plot;
        begin();
        plot.batch(() => {});
        // Above the grid, below cursor and selection.
        plot.over.prepend(this.canvas);
        this.#takeSize();
        this.#showLabels();
    }

    /** CSS pixels that labels and axes want beside the plotting area. */
    get insets() {
        const { element, size } = this;
        const box = element.getBoundingClientRect();
        const area = this.plot.over.getBoundingClientRect();
        const [left, right] = [area.left - box.left, box.right - area.left - size.width];
        return { left: left - this.#extra.left, right: right - this.#extra.right };
    }

    /** @param {{left: number, right: number}} extra CSS pixels that stay empty besides */
    setExtra(extra) {
        if (extra.left === this.#extra.left && extra.right === this.#extra.right) return;
        this.#extra = extra;
        this.redraw();
    }

    /** The canvas for the worker, once. @returns {OffscreenCanvas | null} */
    takeCanvas() {
        if (this.#isTaken) return null;
        this.#isTaken = true;
        return this.canvas.transferControlToOffscreen();
    }

    /** Draws axes and grid for the limits of now. */
    redraw() {
        const plot = this.#plot;
        plot?.batch(() => plot.redraw(false, true));
        this.#showLabels();
        this.#stretch();
    }

    /** @param {Limits} limits that the canvas shows now
     * @param {ImageBitmap} [picture] which it gets; none: the worker has drawn into it */
    setDrawn(limits, picture) {
        const before = this.shown;
        this.drawn = limits;
        if (picture) this.#showPicture(picture);
        if (performance.now() - this.#viewed > PATIENCE) this.#adopt();
        const { shown } = this;
        const isKept = ["x", "y", "y2"].every((name) => {
            const which = /** @type {Which} */ (name);
            return (
                before[which]?.[0] === shown[which]?.[0] && before[which]?.[1] === shown[which]?.[1]
            );
        });
        if (isKept) this.#stretch();
        else this.redraw();
    }

    /** @param {ImageBitmap} picture */
    #showPicture(picture) {
        if (!this.#pictures) {
            const canvas = make("canvas");
            canvas.style.transform = this.canvas.style.transform;
            this.#pictures = canvas.getContext("bitmaprenderer");
            this.canvas.replaceWith(canvas);
            this.canvas = canvas;
        }
        this.#pictures?.transferFromImageBitmap(picture);
    }

    /** @param {Partial<View>} view what somebody looks at, at once */
    look(view) {
        Object.assign(this.view, view);
        this.#viewed = performance.now();
        this.redraw();
    }

    clearSelection() {
        this.plot.setSelect({ left: 0, top: 0, width: 0, height: 0 }, false);
    }

    /** Whether the newest stretch is shown, as somebody wants it. */
    get isFollowing() {
        return this.view.x !== null && !Array.isArray(this.view.x);
    }

    /** Whether the engine's limits are shown. */
    get isHome() {
        return !this.view.x && !this.view.y && !this.view.y2;
    }

    destroy() {
        (this.#plot ?? this.#next?.plot)?.destroy();
        this.element.remove();
    }

    /** The plot and its legend. All legends have to be there before room is measured: those of axes
     * beside these ones take of it, too. */
    #make() {
        (this.#plot ?? this.#next?.plot)?.destroy();
        this.#plot = null;
        /** @type {[number[], ...number[][]]} */
        const columns = [[0, 1]];
        new uPlot(this.#options(), columns, (plot, begin) => {
            this.chart.prepend(plot.root);
            this.#next = { plot, begin: () => begin() };
            this.legend.moveTo(plot, columns);
        });
    }

    /** The worker may bound a view: after a while what it draws is what is looked at. */
    #adopt() {
        for (const which of /** @type {Which[]} */ (["x", "y", "y2"])) {
            const wanted = this.view[which];
            if (!Array.isArray(wanted)) continue;
            const drawn = this.drawn[which];
            if (!isSame(wanted, drawn, this.scaleOf(which))) this.view[which] = drawn;
        }
    }

    /** Moves and stretches the old picture, until the worker has drawn what somebody looks at. */
    #stretch() {
        const { shown, drawn } = this;
        const x = stretch(drawn.x, shown.x, this.scaleOf("x"));
        const y = stretch(drawn.y, shown.y, this.scaleOf("y"));
        const { width, height } = this.size;
        const isKept =
            isSame(drawn.x, shown.x, this.scaleOf("x")) &&
            isSame(drawn.y, shown.y, this.scaleOf("y"));
        const top = 1 - y.from - y.size;
        const matrix = `matrix(${x.size}, 0, 0, ${y.size}, ${x.from * width}, ${top * height})`;
        const transform = isKept || !Number.isFinite(x.size * y.size) ? "" : matrix;
        if (this.canvas.style.transform !== transform) this.canvas.style.transform = transform;
    }

    #showLabels() {
        for (const which of /** @type {Which[]} */ (["x", "y", "y2"])) {
            this.labels[which].show(this.description[which], this.ticks[which].note);
        }
    }

    #takeSize() {
        if (!this.#plot) return;
        const { over, bbox, width, height } = this.#plot;
        const ratio = uPlot.pxRatio;
        const size = { width: bbox.width / ratio, height: bbox.height / ratio, ratio };
        const left = bbox.left / ratio;
        this.labels.x.element.style.paddingLeft = `${left}px`;
        this.labels.x.element.style.paddingRight = `${width - left - size.width}px`;
        // This label stands on its head.
        this.labels.y.element.style.paddingTop = `${height - bbox.top / ratio - size.height}px`;
        this.labels.y2.element.style.paddingBottom = `${height - bbox.top / ratio - size.height}px`;
        over.dataset.axes = String(this.description.id);
        if (JSON.stringify(size) === JSON.stringify(this.size)) return;
        this.size = size;
        this.#surroundings.onSize(this);
    }

    #room() {
        const { clientWidth, clientHeight } = this.chart;
        return { width: Math.max(80, clientWidth), height: Math.max(60, clientHeight) };
    }

    /** @returns {uPlot.Options} */
    #options() {
        const { y2 } = this.description;
        return {
            width: 0,
            height: 0,
            pxAlign: 1,
            legend: this.legend.options,
            padding: [
                10,
                () => this.#rightPadding() + this.#extra.right,
                2,
                () => 6 + this.#extra.left,
            ],
            series: [{}],
            scales: {
                x: { time: false, range: () => WHOLE },
                y: { auto: false, range: WHOLE },
                ...(y2 && { y2: { auto: false, range: WHOLE } }),
            },
            axes: [this.#axis("x"), this.#axis("y"), ...(y2 ? [this.#axis("y2")] : [])],
            cursor: this.#cursor(),
            hooks: {
                init: [(_, options) => Object.assign(options, this.#room())],
                setSeries: [(_, index) => this.legend.changed(index ?? 0)],
                setSize: [() => this.#takeSize()],
                setCursor: [() => this.#surroundings.onCursor(this)],
                setSelect: [() => this.#surroundings.onSelect(this)],
            },
        };
    }

    /** @returns {uPlot.Cursor} linked axes share its x, not its y */
    #cursor() {
        const { linkX } = this.description;
        return {
            // Of those that it does not show uPlot could take none away again.
            points: { show: () => make("div", { hidden: true }) },
            drag: { x: true, y: true, uni: 24, dist: 4, setScale: false },
            sync: {
                key: linkX === null ? "" : `x ${linkX}`,
                scales: ["x", "y"],
                match: [() => true, () => false],
                filters: { pub: (type) => linkX !== null && type === "mousemove" },
            },
            bind: {
                // With shift, or another button, it is moved and not selected.
                mousedown: (_, __, handler) => (event) => {
                    if (event.button === 0 && !event.shiftKey) handler(event);
                    return null;
                },
                dblclick: () => null,
            },
        };
    }

    /** @param {Which} which @returns {uPlot.Axis} */
    #axis(which) {
        const { colors } = this.#surroundings;
        const COUNT = 5;
        const grid = () => colors.get("grid");
        return {
            scale: which,
            side: which === "x" ? 2 : which === "y" ? 3 : 1,
            font: FONT,
            lineGap: LINE_HEIGHT / 12,
            stroke: () => colors.get("quiet"),
            gap: TICK_GAP,
            grid: { show: which !== "y2", stroke: grid, width: 1 },
            ticks: { stroke: () => colors.get("rule"), width: 1, size: TICK },
            border: { show: true, stroke: () => colors.get("rule"), width: 1 },
            // One increment, by which uPlot tells how long the axis is.
            incrs: [COUNT],
            space: 1,
            splits: (_, __, ___, ____, _____, space) => this.#choose(which, space / COUNT),
            values: () => this.ticks[which].ticks.map(({ text }) => text),
            size: () => (which === "x" ? this.#height() : this.#width(which)),
        };
    }

    /** @param {Which} which @param {number} pixels @returns {number[]} */
    #choose(which, pixels) {
        const axis = this.description[which];
        const limits = this.shown[which] ?? WHOLE;
        const room =
            which === "x"
                ? { pixels, extent: textWidth, gap: 14 }
                : { pixels, extent: () => LINE_HEIGHT, gap: 16, lines: 1 };
        this.ticks[which] = chooseTicks(limits, axis?.scale ?? "linear", room, axis?.ticks ?? null);
        return this.ticks[which].ticks.map(({ at }) => at);
    }

    #height() {
        const lines = this.description.x.scale === "time" ? 2 : 1;
        return TICK + TICK_GAP + lines * LINE_HEIGHT;
    }

    /** @param {"y" | "y2"} which */
    #width(which) {
        const longest = Math.max(0, ...this.ticks[which].ticks.map(({ text }) => textWidth(text)));
        const wanted = SIZE_STEP * Math.ceil((TICK + TICK_GAP + longest + 2) / SIZE_STEP);
        this.#sizes[which] = Math.max(this.#sizes[which], wanted);
        return this.#sizes[which];
    }

    /** Where half of the last text may stand. */
    #rightPadding() {
        if (this.description.y2) return 6;
        const longest = Math.max(0, ...this.ticks.x.ticks.map(({ text }) => textWidth(text)));
        const wanted = Math.max(10, SIZE_STEP * Math.ceil(longest / 2 / SIZE_STEP));
        this.#sizes.right = Math.max(this.#sizes.right, wanted);
        return this.#sizes.right;
    }
}

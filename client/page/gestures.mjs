// Zooming and moving by wheel, pointer and fingers. Selecting an area is uPlot's.

import { moved, withEqualAspect, zoomed } from "./navigation.mjs";

/** @typedef {import("./axes_view.mjs").AxesView} AxesView */
/** @typedef {import("./navigation.mjs").View} View */
/** @typedef {import("./navigation.mjs").Which} Which */
/** @typedef {(view: AxesView, change: Partial<View>) => void} Look */

/** A turn of the wheel by so many pixels zooms by the factor e. */
const WHEEL_PIXELS = 400;
const PIXELS_PER_LINE = 16;

/** Which axes a gesture is about. @typedef {{x: boolean, y: boolean}} About */

/** @param {AxesView} view @param {About} about @returns {Which[]} */
function axesOf({ description }, about) {
    const isBoth = description.equalAspect;
    const y = /** @type {Which[]} */ (description.y2 ? ["y", "y2"] : ["y"]);
    return [
        ...(about.x || isBoth ? [/** @type {Which} */ ("x")] : []),
        ...(about.y || isBoth ? y : []),
    ];
}

/** @param {AxesView} view @param {{x: number, y: number}} at from 0 to 1 from the lower left
 * @param {{x: number, y: number}} factor below 1: closer @param {About} about @returns {Partial<View>} */
export function zoomedView(view, at, factor, about) {
    /** @type {Partial<View>} */
    const change = {};
    const { shown } = view;
    for (const which of axesOf(view, about)) {
        const limits = shown[which];
        const axis = which === "x" ? "x" : "y";
        if (limits) change[which] = zoomed(limits, view.scaleOf(which), at[axis], factor[axis]);
    }
    return change;
}

/** @param {AxesView} view @param {{x: number, y: number}} by of the axes' length
 * @returns {Partial<View>} */
export function movedView(view, by) {
    /** @type {Partial<View>} */
    const change = {};
    const { shown } = view;
    for (const which of axesOf(view, { x: by.x !== 0, y: by.y !== 0 })) {
        const limits = shown[which];
        if (limits) change[which] = moved(limits, view.scaleOf(which), which === "x" ? by.x : by.y);
    }
    return change;
}

/** What uPlot's selection holds; null: nothing. @param {AxesView} view @returns {Partial<View> | null} */
export function selectedView(view) {
    const { left, top, width, height } = view.plot.select;
    const { size, shown, description } = view;
    if (width < 2 || height < 2) return null;
    const part = (
        /** @type {Which} */ which,
        /** @type {number} */ from,
        /** @type {number} */ length,
    ) => {
        const limits = shown[which];
        if (!limits || length >= 1) return limits;
        return zoomed(limits, view.scaleOf(which), from / (1 - length), length);
    };
    const x = part("x", left / size.width, width / size.width);
    const low = 1 - (top + height) / size.height;
    const y = part("y", low, height / size.height);
    if (x && y && description.equalAspect) return withEqualAspect(x, y, size.width / size.height);
    /** @type {Partial<View>} */
    const change = {};
    if (width < size.width) change.x = x;
    if (height < size.height) {
        change.y = y;
        if (description.y2) change.y2 = part("y2", low, height / size.height);
    }
    return change;
}

/** Where a pointer is: from 0 to 1 from the lower left of the plotting area, or outside of that.
 * @param {AxesView} view @param {{clientX: number, clientY: number}} event */
export function placeOf(view, { clientX, clientY }) {
    const box = view.plot.over.getBoundingClientRect();
    return { x: (clientX - box.left) / box.width, y: (box.bottom - clientY) / box.height };
}

/** @param {AxesView} view @param {Look} look */
export function listenToGestures(view, look) {
    view.chart.addEventListener("wheel", (event) => wheel(event, view, look), { passive: false });
    const fingers = new Fingers(view, look);
    view.chart.addEventListener("pointerdown", (event) => fingers.down(event));
    view.chart.addEventListener("pointermove", (event) => fingers.move(event));
    for (const end of /** @type {const} */ (["pointerup", "pointercancel"])) {
        view.chart.addEventListener(end, (event) => fingers.up(event));
    }
    // The middle button would scroll the page.
    view.chart.addEventListener("mousedown", (event) => {
        if (event.button === 1) event.preventDefault();
    });
}

/** Over an axis the wheel zooms that one; with shift only x, with alt only y.
 * @param {WheelEvent} event @param {AxesView} view @param {Look} look */
function wheel(event, view, look) {
    event.preventDefault();
    const at = placeOf(view, event);
    const about = { x: at.x >= 0 && at.x <= 1 && !event.altKey, y: at.y >= 0 && !event.shiftKey };
    const unit = event.deltaMode === WheelEvent.DOM_DELTA_PIXEL ? 1 : PIXELS_PER_LINE;
    // With shift some browsers turn the wheel sideways.
    const turned = (event.deltaY || event.deltaX) * unit;
    const factor = Math.exp(Math.max(-1, Math.min(1, turned / WHEEL_PIXELS)));
    look(view, zoomedView(view, at, { x: factor, y: factor }, about));
}

/** @typedef {{clientX: number, clientY: number}} Spot */

/** Pointers that are down and move or stretch the picture: a mouse with shift or its middle button,
 * a finger sideways, two fingers. */
class Fingers {
    #view;
    #look;
    /** @type {Map<number, Spot>} */
    #spots = new Map();

    /** @param {AxesView} view @param {Look} look */
    constructor(view, look) {
        this.#view = view;
        this.#look = look;
    }

    /** @param {PointerEvent} event */
    down(event) {
        const moves = event.button === 1 || (event.button === 0 && event.shiftKey);
        if (event.pointerType === "mouse" && !moves) return;
        this.#spots.set(event.pointerId, event);
        if (event.pointerType === "mouse") this.#view.chart.setPointerCapture(event.pointerId);
        this.#view.chart.classList.toggle("moving", event.pointerType === "mouse");
    }

    /** @param {PointerEvent} event */
    move(event) {
        const before = this.#spots.get(event.pointerId);
        if (!before) return;
        const other = [...this.#spots].find(([id]) => id !== event.pointerId)?.[1];
        this.#spots.set(event.pointerId, event);
        if (other) this.#stretch(before, event, other);
        else this.#drag(before, event);
    }

    /** @param {PointerEvent} event */
    up(event) {
        this.#spots.delete(event.pointerId);
        this.#view.chart.classList.remove("moving");
    }

    /** @param {Spot} before @param {Spot} now */
    #drag(before, now) {
        const { width, height } = this.#view.size;
        const by = {
            x: (before.clientX - now.clientX) / width,
            y: (now.clientY - before.clientY) / height,
        };
        if (by.x !== 0 || by.y !== 0) this.#look(this.#view, movedView(this.#view, by));
    }

    /** @param {Spot} before @param {Spot} now @param {Spot} other */
    #stretch(before, now, other) {
        const distance = (/** @type {Spot} */ a, /** @type {"clientX" | "clientY"} */ axis) =>
            Math.max(30, Math.abs(a[axis] - other[axis]));
        const [x, y] = /** @type {const} */ (["clientX", "clientY"]).map(
            (axis) => distance(before, axis) / distance(now, axis),
        );
        const whole = Math.hypot(before.clientX - other.clientX, before.clientY - other.clientY);
        const after = Math.hypot(now.clientX - other.clientX, now.clientY - other.clientY);
        const same = whole / Math.max(1, after);
        const factor = this.#view.description.equalAspect ? { x: same, y: same } : { x, y };
        const change = zoomedView(this.#view, placeOf(this.#view, other), factor, {
            x: true,
            y: true,
        });
        this.#look(this.#view, change);
    }
}

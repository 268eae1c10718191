// What of a scene is shown, and how: canvases, views, colours; and its drawing.

import { linkedView } from "../sides.mjs";
import { colorLimitsOf } from "./color_maps.mjs";
import { describe } from "./description.mjs";
import { KeptPainter } from "./kept.mjs";
import { isVisible, limitsOf } from "./limits.mjs";
import { errorOf } from "./painter.mjs";
import { Scene } from "./scene.mjs";

/** @typedef {import("../messages.mjs").Limits} Limits */
/** @typedef {import("../messages.mjs").Theme} Theme */
/** @typedef {import("../messages.mjs").ToMain} ToMain */
/** @typedef {import("./limits.mjs").View} View */

/** In CSS pixels, and how many of the canvas one of them is.
 * @typedef {{width: number, height: number, ratio: number}} AreaSize */

/** Of axes that are shown.
 * @typedef {{painter: KeptPainter, isStale: boolean, drawn: string}} Shown */

/** @param {import("./scene.mjs").Item} axes */
const linkable = ({ id, properties }) =>
    /** @type {import("../sides.mjs").Linkable} */ ({ id, ...properties });

export class Stage {
    #post;
    #scene = new Scene();
    /** @type {Map<number, Shown>} by axes */
    #shown = new Map();
    /** What the last `frame` said, as text. */
    #told = "";
    #stamp = 0;
    /** The layout that is asked for; 0: none. */
    #awaited = 0;
    /** Whether what is drawn goes to the main thread as pictures. That of all axes: what is drawn into
     * a canvas is seen a frame earlier, and a frame would be seen in parts. */
    #isSent = false;

    /** @type {Theme} */
    theme = { ground: "#ffffff", text: "#000000", dark: false };
    /** @type {Map<number, View>} */
    views = new Map();
    /** @type {Set<number>} */
    hidden = new Set();
    /** @type {Map<number, AreaSize>} */
    sizes = new Map();

    /** @param {(message: ToMain, moved?: Transferable[]) => void} post to the main thread */
    constructor(post) {
        this.#post = post;
    }

    get scene() {
        return this.#scene;
    }
    /** Whether the axes are laid out. */
    get isReady() {
        return this.#awaited === 0;
    }

    /** @param {Scene} scene shown from now on, with all of it to be drawn */
    show(scene) {
        this.#scene = scene;
        scene.isRestructured = true;
        this.drawAll();
    }

    /** What somebody chose means nothing any more. */
    forget() {
        this.views.clear();
        this.hidden.clear();
    }

    /** @param {Theme} theme */
    setTheme(theme) {
        this.theme = theme;
        this.#scene.isRestructured = true;
        this.drawAll();
    }

    /** @param {number} series @param {boolean} isWanted */
    setVisible(series, isWanted) {
        if (isWanted) this.hidden.delete(series);
        else this.hidden.add(series);
        const axes = this.#scene.find(series)?.parent;
        if (axes) this.#scene.changed.add(axes.id);
        this.#scene.isRestructured = true;
    }

    /** Axes that are linked get the same x, and those of the other side that are the same all of it.
     * @param {number} id @param {View} view @returns {number[]} the axes that are seen differently */
    setView(id, view) {
        const axes = this.#scene.find(id);
        if (axes?.family !== "axes") return [];
        const ids = [];
        for (const other of this.#scene.axes) {
            const old = this.views.get(other.id) ?? { x: null, y: null, y2: null };
            const next = other === axes ? view : linkedView(linkable(axes), linkable(other), view);
            if (!next) continue;
            this.views.set(other.id, { ...old, ...next });
            ids.push(other.id);
        }
        if (ids.length > 0) this.#send();
        return ids;
    }

    /** @param {number} axes @param {OffscreenCanvas} canvas @param {AreaSize} size */
    addCanvas(axes, canvas, size) {
        const painter = new KeptPainter(this.#isSent ? new OffscreenCanvas(1, 1) : canvas);
        this.#shown.set(axes, { painter, isStale: true, drawn: "" });
        this.sizes.set(axes, size);
        // The main thread waits for the picture in this size.
        this.#told = "";
    }
    /** @param {number} axes @param {AreaSize} size */
    resize(axes, size) {
        this.sizes.set(axes, size);
        const shown = this.#shown.get(axes);
        if (shown) shown.isStale = true;
        this.#told = "";
    }
    /** @param {number} axes */
    removeCanvas(axes) {
        this.#shown.delete(axes);
        this.sizes.delete(axes);
    }

    /** From now on all is drawn for pictures. */
    #send() {
        if (this.#isSent) return;
        this.#isSent = true;
        for (const shown of this.#shown.values()) {
            const painter = new KeptPainter(new OffscreenCanvas(1, 1));
            Object.assign(shown, { painter, isStale: true });
        }
    }

    /** All of it is to be drawn anew. */
    drawAll() {
        for (const shown of this.#shown.values()) {
            shown.isStale = true;
            shown.painter.forget();
        }
    }

    /** @param {import("./scene.mjs").Item} series */
    shows = (series) => isVisible(series, this.hidden);

    /** @returns {Map<number, Limits>} as they are now, by axes */
    limits() {
        return limitsOf(this.#scene, this);
    }

    /** Tells what there is, if that has changed. Nothing is drawn until it is laid out. */
    announce() {
        if (!this.#scene.isRestructured) return;
        this.#prune();
        const figures = describe(this.#scene, this, this.limits());
        this.#scene.isRestructured = false;
        this.#awaited = ++this.#stamp;
        this.#told = "";
        const { keys } = this.#scene;
        this.#post({ kind: "scene", stamp: this.#stamp, keys, figures });
    }

    /** Forgets what somebody chose for objects that are gone. */
    #prune() {
        for (const axes of this.views.keys()) if (!this.#scene.find(axes)) this.views.delete(axes);
        for (const id of this.hidden) if (!this.#scene.find(id)) this.hidden.delete(id);
    }

    /** @param {number} stamp of the scene that was laid out */
    laid(stamp) {
        if (stamp === this.#awaited) this.#awaited = 0;
    }

    /** Draws what has changed. @returns {{stamp: number, errors: Error[]}} stamp: of what the main
     * thread was told, 0: nothing */
    paint() {
        const limits = this.limits();
        /** @type {Record<number, ImageBitmap>} */
        const pictures = {};
        const errors = this.#scene.axes.flatMap((axes) => {
            const shown = this.#shown.get(axes.id);
            const size = this.sizes.get(axes.id);
            const range = limits.get(axes.id);
            if (!shown || !size || !range) return [];
            const drawn = JSON.stringify(range);
            const isSame = shown.drawn === drawn && !this.#scene.changed.has(axes.id);
            if (isSame && !shown.isStale) return [];
            // Until all of it is drawn.
            Object.assign(shown, { drawn, isStale: true });
            try {
                const failures = shown.painter.paint(axes, range, canvasSize(size), this);
                if (this.#isSent) pictures[axes.id] = shown.painter.take();
                // Nobody is to be told of the next frame that these axes are right.
                shown.isStale = failures.length > 0;
                return failures;
            } catch (thrown) {
                // The old picture stays, with its limits. Those of other axes are not held up.
                limits.delete(axes.id);
                return [errorOf("paint", thrown)];
            }
        });
        this.#scene.changed.clear();
        return { stamp: this.#tell(limits, pictures), errors };
    }

    /** @param {Map<number, Limits>} limits @param {Record<number, ImageBitmap>} pictures by axes
     * @returns {number} the stamp, 0: it is known */
    #tell(limits, pictures) {
        const said = { limits: Object.fromEntries(limits), colors: this.#colorLimits() };
        const told = JSON.stringify(said);
        const moved = Object.values(pictures);
        if (told === this.#told && moved.length === 0) return 0;
        this.#told = told;
        const stamp = ++this.#stamp;
        this.#post({ kind: "frame", stamp, frame: this.#scene.frame, ...said, pictures }, moved);
        return stamp;
    }

    /** @returns {Record<number, [number, number]>} by series that have a colour bar */
    #colorLimits() {
        const series = this.#scene.axes.flatMap((axes) => axes.childrenOf("series"));
        const colored = series.filter(({ columns }) => columns.z ?? columns.value);
        return Object.fromEntries(colored.map((one) => [one.id, colorLimitsOf(one)]));
    }
}

/** @param {AreaSize} size @returns {import("./painter.mjs").Size} */
export function canvasSize({ width, height, ratio }) {
    return {
        width: Math.max(1, Math.round(width * ratio)),
        height: Math.max(1, Math.round(height * ratio)),
        ratio,
    };
}

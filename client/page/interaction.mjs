// What somebody does with figures: pointers, keys and the toolbar, and what that changes.

import { copyText } from "./clipboard.mjs";
import { listenToGestures, movedView, placeOf, selectedView, zoomedView } from "./gestures.mjs";
import { Crosshair, pickedText, valueText } from "./hover.mjs";
import { KeySelection } from "./key_selection.mjs";
import { meaningOf, showKeys } from "./keys.mjs";
import { homeView } from "./navigation.mjs";
import { showSave } from "./save.mjs";
import { valueAt } from "./scale.mjs";
import { linkedView } from "./sides.mjs";
import { spokenName } from "./spoken.mjs";
import { showTable } from "./table.mjs";

/** @typedef {import("./axes_view.mjs").AxesView} AxesView */
/** @typedef {import("./figure_view.mjs").FigureView} FigureView */
/** @typedef {import("./messages.mjs").Probed} Probed */
/** @typedef {import("./navigation.mjs").View} View */

const CLOSER = 0.8;
/** CSS pixels that a pointer may move in a click, and an element may lie away from it. */
const CLICK = 4;
const NEAR = 12;
/** CSS pixels that an element may lie away from the crosshair. */
const REACH = 40;
/** Milliseconds after which it is looked again what lies at a crosshair. */
const LOOK_EVERY = 100;
/** Milliseconds after which axes that show something else are named anew. */
const NAME_EVERY = 1000;
/** Milliseconds between two values that are said. */
const SAY_EVERY = 800;

/** Everything that can be done with axes. */
export class Interaction {
    #worker;
    #colors;
    #say;
    #actions;
    /** @type {Map<AxesView, {figure: FigureView, crosshair: Crosshair, selection: KeySelection}>} */
    #known = new Map();
    /** Where somebody is: the crosshairs of linked axes follow without a word.
     * @type {AxesView | null} */
    #active = null;
    /** Whether the engine listens to keys: if not, they stay the browser's. */
    engineListens = false;
    /** Whether axes may show something else than their names say. */
    #isNamedLate = false;
    #wantsSay = "";
    #sayTimer = 0;

    /** @param {import("./worker_link.mjs").WorkerLink} worker
     * @param {import("./theme.mjs").Colors} colors
     * @param {(text: string) => void} say to those who do not see it
     * @param {{pause: () => void, record: () => void, open: () => void, layOut: () => void}} actions
     *   of the page */
    constructor(worker, colors, say, actions) {
        this.#colors = colors;
        this.#worker = worker;
        this.#say = say;
        this.#actions = actions;
        setInterval(() => this.#lookAgain(), LOOK_EVERY);
        setInterval(() => this.#nameAgain(), NAME_EVERY);
    }

    /** @param {FigureView} figure @param {AxesView} view */
    add(figure, view) {
        const ask = (/** @type {number} */ x, /** @type {number | null} */ y) =>
            this.#probe(view, x, y, REACH);
        const crosshair = new Crosshair(view, ask, (text) => this.#saySoon(text));
        const selection = new KeySelection(view);
        this.#known.set(view, { figure, crosshair, selection });
        const { element, chart } = view;
        chart.tabIndex = 0;
        chart.setAttribute("role", "application");
        chart.setAttribute("aria-roledescription", "plot");
        chart.addEventListener("keydown", (event) => this.#key(event, view));
        this.#name(view);
        const isHere = () => {
            this.#active = view;
            figure.setCurrent(view);
        };
        element.addEventListener("focusin", () => {
            isHere();
            this.#name(view);
        });
        element.addEventListener("pointerenter", isHere);
        chart.addEventListener("blur", () => {
            selection.forget();
            crosshair.leave();
        });
        chart.addEventListener("pointerdown", () => selection.forget());
        chart.addEventListener("dblclick", () => this.#look(view, homeView()));
        this.#listenToClicks(view);
        listenToGestures(view, (which, change) => this.#look(which, change));
    }

    /** @param {AxesView} view */
    remove(view) {
        this.#known.delete(view);
    }

    /** @param {AxesView} view */
    cursorMoved(view) {
        const known = this.#known.get(view);
        known?.crosshair.refresh(view === this.#active);
        known?.selection.extend();
    }

    /** What axes show is, or may be, something else. */
    changed() {
        this.#isNamedLate = true;
    }

    /** Not with each frame: that would cost more than it tells. */
    #nameAgain() {
        if (!this.#isNamedLate) return;
        this.#isNamedLate = false;
        for (const view of this.#known.keys()) this.#name(view);
    }

    /** @param {AxesView} view */
    #name(view) {
        const title = this.#known.get(view)?.figure.description.title ?? "";
        const name = spokenName(view, title, valueText);
        if (view.chart.ariaLabel !== name) view.chart.ariaLabel = name;
    }

    /** What lies at the crosshairs may be another now. */
    #lookAgain() {
        for (const { crosshair } of this.#known.values()) {
            if (crosshair.told) crosshair.refresh(false);
        }
    }

    /** An area was selected. @param {AxesView} view */
    selected(view) {
        const change = selectedView(view);
        const selection = this.#known.get(view)?.selection;
        if (!change) {
            selection?.forget();
            return;
        }
        selection?.end();
        view.clearSelection();
        this.#look(view, change);
    }

    /** A key, wherever the focus is. @param {KeyboardEvent} event */
    pageKey(event) {
        const { target } = event;
        if (event.defaultPrevented || document.querySelector("dialog")) return;
        const meaning = meaningOf(event);
        if (meaning?.do === "leave") this.#leave();
        const at = target instanceof Element ? target : document.body;
        if (at.closest("input, select, textarea")) return;
        // A button is pressed by it.
        if (meaning?.do === "pause" && !at.closest("button")) event.repeat || this.#actions.pause();
        // Who speaks to the browser must do nothing by a letter.
        else if (!at.closest(".figure")) return;
        else if (meaning?.do === "help") showKeys();
        else if (meaning?.do === "engine" && this.engineListens) {
            this.#worker.post({ kind: "key", key: meaning.key, axes: null });
        } else return;
        event.preventDefault();
    }

    /** Puts away what lies over the figures; if nothing does, no figure fills the window any more. */
    #leave() {
        const known = [...this.#known.values()];
        const shown = known.filter(({ crosshair }) => crosshair.isShown);
        for (const { crosshair } of shown) crosshair.leave();
        for (const { figure } of known) {
            figure.setCentring(false);
            if (shown.length === 0 && figure.element.classList.contains("full")) this.#fill(figure);
        }
    }

    /** Something of the toolbar's. @param {FigureView} figure @param {string} action
     * @param {AxesView | undefined} [view] the axes that it is about */
    act(figure, action, view = figure.current) {
        if (!view?.isLaidOut) return;
        const crosshair = this.#known.get(view)?.crosshair;
        const both = { x: true, y: true };
        if (action === "zoomIn") this.#zoom(view, true, both);
        else if (action === "zoomOut") this.#zoom(view, false, both);
        else if (action === "center") this.#center(figure, view, crosshair?.place ?? null);
        else if (action === "home") {
            for (const one of figure.axes.values()) if (!one.isHome) this.#look(one, homeView());
        } else if (action === "follow") this.#follow(view);
        else if (action === "copy") void this.#copy(view, crosshair?.text ?? "");
        else if (action === "table") void showTable(this.#worker, figure, view);
        else if (action === "save") showSave(this.#worker, figure, view, this.#colors);
        else if (action === "full") this.#fullScreen(figure);
    }

    /** @param {KeyboardEvent} event @param {AxesView} view */
    #key(event, view) {
        const known = this.#known.get(view);
        const meaning = meaningOf(event);
        if (!known || !meaning) return;
        const { figure, crosshair, selection } = known;
        if (meaning.do === "crosshair") crosshair.move(meaning.x, meaning.y);
        else if (meaning.do === "move") this.#look(view, movedView(view, meaning));
        else if (meaning.do === "zoom") this.#zoom(view, meaning.isCloser, meaning);
        else if (meaning.do === "mark") this.#mark(view);
        else if (meaning.do === "pick") this.#point(view, crosshair.place);
        else if (meaning.do === "leave" && selection.isBegun) selection.forget();
        else if (meaning.do === "action") this.act(figure, meaning.action, view);
        // Only here: who speaks to the browser must not begin a recording by a letter.
        else if (meaning.do === "record") event.repeat || this.#actions.record();
        else if (meaning.do === "open") this.#actions.open();
        else if (meaning.do === "engine" && this.engineListens) {
            this.#worker.post({ kind: "key", key: meaning.key, axes: view.description.id });
        } else return;
        event.preventDefault();
    }

    /** Around the crosshair. @param {AxesView} view @param {boolean} isCloser
     * @param {{x: boolean, y: boolean}} about which axes */
    #zoom(view, isCloser, about) {
        const at = this.#known.get(view)?.crosshair.place ?? { x: 0.5, y: 0.5 };
        const factor = isCloser ? CLOSER : 1 / CLOSER;
        this.#look(view, zoomedView(view, at, { x: factor, y: factor }, about));
    }

    /** One corner of what is to be seen, and then the other one. @param {AxesView} view */
    #mark(view) {
        const known = this.#known.get(view);
        if (!known) return;
        const { crosshair, selection } = known;
        if (selection.isBegun) {
            this.selected(view);
            return;
        }
        if (!crosshair.isShown) crosshair.move(0, 0);
        selection.begin();
        this.#say("Corner marked");
    }

    /** Shows the newest stretch, as wide as what is shown, or no more. @param {AxesView} view */
    #follow(view) {
        const [low, high] = view.shown.x;
        const isOver = view.isFollowing || view.scaleOf("x") === "log";
        this.#look(view, { x: isOver ? null : { follow: high - low } });
    }

    /** Shows at once what is to be looked at, in all axes that are linked; the worker draws it.
     * @param {AxesView} view @param {Partial<View>} change */
    #look(view, change) {
        const { description } = view;
        view.look(change);
        const figures = new Set([this.#known.get(view)?.figure]);
        for (const [other, { figure }] of this.#known) {
            const linked = linkedView(description, other.description, change);
            if (!linked) continue;
            other.look(linked);
            figures.add(figure);
        }
        this.#worker.post({ kind: "view", axes: description.id, ...view.view });
        for (const figure of figures) figure?.showHome();
    }

    /** @param {AxesView} view @param {number} x @param {number | null} y @param {number} reach
     * @returns {Promise<Probed[]>} */
    async #probe(view, x, y, reach) {
        const axes = view.description.id;
        return (await this.#worker.ask({ kind: "probe", axes, x, y, reach })).values;
    }

    /** @param {AxesView} view */
    #listenToClicks(view) {
        let down = { clientX: 0, clientY: 0 };
        view.chart.addEventListener("pointerdown", (event) => (down = event));
        view.chart.addEventListener("click", (event) => {
            const far = Math.hypot(event.clientX - down.clientX, event.clientY - down.clientY);
            const place = placeOf(view, event);
            const isInside = place.x >= 0 && place.x <= 1 && place.y >= 0 && place.y <= 1;
            // The second click of a double click is on the way home.
            if (far <= CLICK && isInside && !event.shiftKey && event.detail < 2) {
                this.#point(view, place);
            }
        });
    }

    /** Somebody points at a place. @param {AxesView} view @param {{x: number, y: number} | null} place */
    #point(view, place) {
        const figure = this.#known.get(view)?.figure;
        if (figure?.isCentring && place) this.#center(figure, view, place);
        else void this.#pickAt(view, place);
    }

    /** Moves the picture without a drag: a place gets into the middle, if there is none the next one
     * that somebody points at.
     * @param {FigureView} figure @param {AxesView} view @param {{x: number, y: number} | null} place */
    #center(figure, view, place) {
        figure.setCentring(!place && !figure.isCentring);
        if (place) this.#look(view, movedView(view, { x: place.x - 0.5, y: place.y - 0.5 }));
        else if (figure.isCentring) this.#say("Click what is to be in the middle");
    }

    /** @param {AxesView} view @param {{x: number, y: number} | null} place from 0 to 1 */
    async #pickAt(view, place) {
        if (!place || !view.description.picks) return;
        const { shown, size, description } = view;
        const x = valueAt(place.x, shown.x, view.scaleOf("x"));
        const y = valueAt(place.y, shown.y, view.scaleOf("y"));
        const [left, top] = [place.x * size.width, (1 - place.y) * size.height];
        const probed = await this.#probe(view, left, top, NEAR);
        const distance = (/** @type {Probed} */ { px, py }) => Math.hypot(px - left, py - top);
        const [nearest] = probed
            .filter((one) => distance(one) <= NEAR)
            .sort((a, b) => distance(a) - distance(b));
        const near = nearest && { series: nearest.series, index: nearest.index };
        this.#worker.post({ kind: "pick", axes: description.id, x, y, ...(near && { near }) });
        // What the crosshair was about to say would take its place.
        window.clearTimeout(this.#sayTimer);
        this.#sayTimer = 0;
        this.#say(`Picked ${pickedText(view, nearest, { x, y })}`);
    }

    /** @param {AxesView} view @param {string} text of the crosshair; empty: all that is seen */
    async #copy(view, text) {
        const axes = [view.description.id];
        await copyText(text || (await this.#worker.ask({ kind: "csv", axes })).text);
        this.#say("Copied");
    }

    /** Where a browser has no full screen for elements, the window is filled.
     * @param {FigureView} figure */
    #fullScreen(figure) {
        if (document.fullscreenElement) void document.exitFullscreen();
        else if (figure.element.requestFullscreen) void figure.element.requestFullscreen();
        else this.#fill(figure);
    }

    /** Has a figure fill the window, or no more. @param {FigureView} figure */
    #fill({ element }) {
        element.classList.toggle("full");
        this.#actions.layOut();
    }

    /** Not each of the values that pass by. @param {string} text */
    #saySoon(text) {
        this.#wantsSay = text;
        if (this.#sayTimer) return;
        this.#sayTimer = window.setTimeout(() => {
            this.#sayTimer = 0;
            this.#say(this.#wantsSay);
        }, SAY_EVERY);
    }
}

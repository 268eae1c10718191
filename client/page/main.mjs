// The page: brings the worker, which has the data, and the elements together.

import { gatewayAddress, tabAccess } from "../access.mjs";
import { showColorBars } from "./color_bar.mjs";
import { byId, icon, make } from "./dom.mjs";
import { FigureView } from "./figure_view.mjs";
import { fileName } from "./file_name.mjs";
import { giveFile } from "./give_file.mjs";
import { Interaction } from "./interaction.mjs";
import { showKeys } from "./keys.mjs";
import { LatencyPanel } from "./latency_panel.mjs";
import { NextFrame } from "./next_frame.mjs";
import { Places } from "./places.mjs";
import { RecordButton } from "./recording/button.mjs";
import {
    askPlace,
    chooseRecordings,
    listenToDrops,
    ownMoment,
    ownRecordings,
} from "./recording/opening.mjs";
import { SingleFile, workerAddress } from "./recording/single_file.mjs";
import { sourceOf } from "./recording/sources.mjs";
import { staleText } from "./stale.mjs";
import { StatusBar } from "./status_bar.mjs";
import { Colors } from "./theme.mjs";
import { PAUSE, PLAY, TimeLine } from "./time_line.mjs";
import { WorkerLink } from "./worker_link.mjs";

/** @typedef {import("./axes_view.mjs").AxesView} AxesView */
/** @typedef {import("./messages.mjs").ToMain} ToMain */
/** @typedef {import("./next_frame.mjs").Frame} Frame */

const HELP = "M5.8 6a2.2 2.2 0 1 1 3.4 1.9c-.8.5-1.2.9-1.2 1.9M8 12.2v.3";

/** What says how the page is laid out; the rest may change with each frame.
 * @param {import("./messages.mjs").FigureDescription} figure */
function shapeOf({ id, title, columns, controls, axes }) {
    const places = axes.map((one) => {
        const { row, column, linkX, y2, legend } = one;
        return [one.id, one.title === "", row, column, linkX, y2 === null, legend];
    });
    return [id, title === "", columns, controls.length, places];
}

class Page {
    // Before anything is changed.
    #singleFile = new SingleFile(document);
    /** @type {Map<number, FigureView>} */
    figures = new Map();
    /** @type {string[]} the latest errors */
    errors = [];
    /** What the worker said last. @type {Extract<ToMain, {kind: "statistics"}> | null} */
    statistics = null;
    #root = byId("figures");
    #empty = /** @type {Element} */ (this.#root.firstElementChild);
    #colors = new Colors();
    #charts = new ResizeObserver(() => this.#fit());
    /** Whether axes have got another size since they were aligned. */
    #isUneven = false;
    #isLive = false;
    /** Whether a plotting area has another size since the picture at hand came. */
    #isResized = false;
    /** Whether the answer for a picture waits for one in other sizes. */
    #isHeldBack = false;
    #isPaused = false;
    /** Of what is shown: what takes which place, as text. */
    #shape = "";
    #next = new NextFrame();
    /** Once an animation frame has been painted, a message on this channel answers for it. */
    #frameEnd = new MessageChannel();
    /** @type {number[]} */
    #painted = [];
    /** The recordings that are shown. @type {(Blob | string)[]} */
    #files = [];
    #places = new Places(this.#root);
    #pauseButton = make("button", { type: "button", click: () => this.pause() });

    constructor() {
        this.status = new StatusBar(byId("status"), () => this.worker.post({ kind: "retry" }));
        this.worker = new WorkerLink(
            workerAddress(document),
            (message) => this.#take(message),
            (error) => this.#report(error),
        );
        this.interaction = new Interaction(this.worker, this.#colors, (text) => this.#say(text), {
            pause: () => this.pause(),
            record: () => {
                if (!this.#isReplay) this.recording.press();
            },
            open: () => this.#choose(),
            layOut: () => this.#layOut(),
        });
        this.recording = new RecordButton(
            this.worker,
            (text) => this.#say(text),
            (error) => this.#report(error),
            { begun: () => this.#singleFile.prepare(), save: (file) => this.#saveAsPage(file, 0) },
        );
        this.timeLine = new TimeLine(
            (wish) => this.worker.post({ kind: "player", wish }),
            (text) => this.#say(text),
            (time) =>
                void this.#saveAsPage(this.#files[0], time).catch((error) => this.#report(error)),
        );
        this.latency = new LatencyPanel(this.worker, this.#colors, (time) => {
            this.worker.post({ kind: "player", wish: { do: "seek", time } });
        });
        this.#makeActions();
        this.#listen();
        const { hidden } = document;
        const own = ownRecordings(document, location);
        const address = own.length === 0 ? gatewayAddress() : null;
        this.worker.post({ kind: "start", address, theme: this.#colors.theme(), hidden });
        if (own.length > 0) this.open(own, ownMoment(document, location));
        const LOOK_AGAIN = 500;
        setInterval(() => this.#showStale(), LOOK_AGAIN);
    }

    /** How often each outcome was answered, as far as the worker has said. */
    get outcomes() {
        return this.statistics?.outcomes ?? { painted: 0, hidden: 0, paused: 0, failed: 0 };
    }

    get #isReplay() {
        return this.#files.length > 0;
    }

    /** Shows recordings from now on. @param {(Blob | string)[]} files or their addresses
     * @param {import("./messages.mjs").Beginning} [at] */
    open(files, at = { time: 0 }) {
        if (this.#isPaused) this.pause();
        this.#files = files;
        this.#singleFile.prepare();
        this.timeLine.close();
        this.latency.close();
        this.#pauseButton.hidden = true;
        this.recording.hide();
        // What somebody looks at in figures that were here says nothing about those that come.
        this.#show([]);
        this.#places.divide([]);
        this.worker.post({ kind: "replay", files, at });
    }

    /** Files that somebody gives the page. @param {File[]} files */
    #given(files) {
        const isOneMore = files.length === 1 && this.#isReplay;
        if (isOneMore) askPlace(files[0], this.#files, (all) => this.open(all));
        else this.open(files);
    }

    #choose() {
        chooseRecordings((files) => this.#given(files));
    }

    /** @param {Extract<ToMain, {kind: "recording"}>} recording */
    #begin(recording) {
        this.#places.divide(recording.sides);
        this.timeLine.open(recording);
    }

    /** @param {Blob | string} file @param {number} time milliseconds, where it is to be opened */
    async #saveAsPage(file, time) {
        const MS_PER_S = 1000;
        const source = await sourceOf(file, async () => (await tabAccess?.token()) ?? "");
        const page = await this.#singleFile.of(source, time / MS_PER_S);
        giveFile(page, fileName(document.title, "", new Date(), "html"));
        this.#say("Saved as HTML");
    }

    /** Pauses, or goes on. */
    pause() {
        if (this.#isReplay) return;
        this.#isPaused = !this.#isPaused;
        this.worker.post({ kind: "pause", paused: this.#isPaused });
        this.#showPaused();
        this.#say(this.#isPaused ? "Paused" : "Live");
    }

    #makeActions() {
        const help = make(
            "button",
            { type: "button", "aria-label": "Keys", title: "Keys (?)", click: () => showKeys() },
            icon(HELP),
        );
        this.status
            .part("actions")
            .append(this.#pauseButton, this.recording.element, this.recording.saveElement, help);
        this.#root.after(this.timeLine.element);
        this.status
            .part("latency")
            .addEventListener("click", () => this.latency.open(this.#isReplay));
        const open = make(
            "button",
            { type: "button", click: () => this.#choose() },
            "Open a recording",
        );
        this.#empty.append(" ", open);
        this.#showPaused();
    }

    #showPaused() {
        const [name, paths] = this.#isPaused ? ["Go on", PLAY] : ["Pause", PAUSE];
        this.#pauseButton.replaceChildren(icon(paths), name);
        this.#pauseButton.title = `${name} (Space)`;
        document.body.classList.toggle("paused", this.#isPaused);
        this.status.showPaused(this.#isPaused);
    }

    #listen() {
        this.#frameEnd.port1.onmessage = () => {
            for (const stamp of this.#painted.splice(0)) {
                this.worker.post({ kind: "painted", stamp });
            }
        };
        document.addEventListener("visibilitychange", () => {
            this.worker.post({ kind: "hidden", hidden: document.hidden });
            if (document.hidden) this.#paint();
        });
        // Before the axes, which have a use for Space.
        document.addEventListener("keydown", (event) => this.timeLine.key(event), true);
        document.addEventListener("keydown", (event) => this.interaction.pageKey(event));
        listenToDrops((files) => this.#given(files));
        this.#colors.whenChanged(() => {
            this.worker.post({ kind: "theme", theme: this.#colors.theme() });
            for (const view of this.#axes()) view.redraw();
        });
        new ResizeObserver(() => this.#layOut()).observe(this.#root);
        document.addEventListener("fullscreenchange", () => this.#layOut());
        addEventListener("online", () => this.worker.post({ kind: "retry" }));
        addEventListener("error", ({ message }) =>
            this.worker.post({ kind: "report", text: message }),
        );
        addEventListener("unhandledrejection", ({ reason }) =>
            this.worker.post({ kind: "report", text: String(reason) }),
        );
        // A page that is kept for the back button would answer nothing: it says that it goes.
        addEventListener("pagehide", () => this.worker.post({ kind: "close" }));
        addEventListener("pageshow", (event) => {
            if (event.persisted) location.reload();
        });
        tabAccess?.whenLinkOpened?.(() => this.worker.post({ kind: "link" }));
    }

    /** @param {ToMain} message */
    #take(message) {
        if (message.kind === "frame") this.#takeFrame(message);
        else if (message.kind === "scene") this.#takeScene(message);
        else if (message.kind === "statistics") this.#takeStatistics(message);
        else if (message.kind === "state") this.#takeState(message);
        else if (message.kind === "hello") this.#takeHello(message);
        else if (message.kind === "recorded") this.recording.ended(message.file, message.reason);
        else if (message.kind === "recording") this.#begin(message);
        else if (message.kind === "moment") this.#moved(message);
        else if (message.kind === "survey") this.timeLine.surveyed(message);
        else if (message.kind === "ask") void this.#answer(message);
        else if (message.kind === "error") this.#report(new Error(message.text));
    }

    /** @param {Extract<ToMain, {kind: "moment"}>} moment */
    #moved(moment) {
        this.timeLine.moved(moment);
        this.#places.moved(moment);
    }

    /** @param {Extract<ToMain, {kind: "state"}>} state */
    #takeState(state) {
        this.#isLive = state.name === "live";
        this.status.showState(state);
        this.#showStale();
    }

    /** @param {Extract<ToMain, {kind: "hello"}>} hello */
    #takeHello({ configuration, known }) {
        if (configuration.title) this.status.showTitle(String(configuration.title));
        if (!known) {
            this.#report(
                new Error(`this page does not know "${configuration.vocabulary ?? "nothing"}"`),
            );
        }
    }

    /** @param {Extract<ToMain, {kind: "ask"}>} question */
    async #answer({ id, what }) {
        let value = null;
        try {
            value = (await (what === "token" ? tabAccess?.token() : tabAccess?.isServed())) ?? null;
        } catch {
            // Null says that it could not be found out.
        }
        this.worker.post({ kind: "told", id, value });
    }

    /** @param {Extract<ToMain, {kind: "statistics"}>} statistics */
    #takeStatistics(statistics) {
        this.statistics = statistics;
        this.status.showStatistics(statistics);
        this.recording.showSize(statistics.recorded);
        for (const id of statistics.changed) this.figures.get(id)?.watch.heard(statistics.news);
    }

    /** What goes wrong with a scene does not keep the worker from drawing it.
     * @param {Extract<ToMain, {kind: "scene"}>} scene */
    #takeScene({ stamp, keys, figures }) {
        this.interaction.engineListens = keys && !this.#isReplay;
        try {
            this.#show(figures);
        } finally {
            this.worker.post({ kind: "laid", stamp });
        }
    }

    /** Brings the elements up to date, and gives new axes a canvas.
     * @param {import("./messages.mjs").FigureDescription[]} figures */
    #show(figures) {
        const ids = new Set(figures.map(({ id }) => id));
        for (const [id, view] of this.figures) {
            if (ids.has(id)) continue;
            view.destroy();
            this.figures.delete(id);
        }
        for (const figure of figures) {
            const view = this.figures.get(figure.id) ?? this.#addFigure(figure);
            view.describe(figure);
            view.setUsable(!this.#isReplay);
        }
        if (figures.length === 0) this.#root.append(this.#empty);
        else this.#empty.remove();
        const shape = JSON.stringify(figures.map(shapeOf));
        if (shape !== this.#shape) this.#layOut();
        else for (const view of this.#axes()) view.redraw();
        this.#shape = shape;
        this.interaction.changed();
        this.#showStale();
    }

    /** @param {import("./messages.mjs").FigureDescription} description */
    #addFigure(description) {
        const view = new FigureView(
            description,
            {
                onAxes: (axes) => {
                    // Others may have had its number.
                    this.#next.forget(axes.description.id);
                    this.interaction.add(view, axes);
                    this.#charts.observe(axes.chart);
                },
                onGone: (axes) => this.#forget(axes),
                onAction: (figure, action) => this.interaction.act(figure, action),
                onControl: (id, value) => this.worker.post({ kind: "control", id, value }),
            },
            {
                colors: this.#colors,
                onSize: (axes) => this.#sized(axes),
                onCursor: (axes) => this.interaction.cursorMoved(axes),
                onSelect: (axes) => this.interaction.selected(axes),
                onVisible: (series, visible) =>
                    this.worker.post({ kind: "visible", series, visible }),
            },
        );
        this.figures.set(description.id, view);
        this.#places.add(view);
        return view;
    }

    /** @param {AxesView} axes */
    #forget(axes) {
        this.interaction.remove(axes);
        this.#charts.unobserve(axes.chart);
        this.worker.post({ kind: "gone", axes: axes.description.id });
    }

    /** @param {AxesView} view */
    #sized(view) {
        this.#isUneven = true;
        this.#isResized = true;
        const { width, height, ratio } = view.size;
        const axes = view.description.id;
        const canvas = view.takeCanvas();
        if (canvas) {
            this.worker.post({ kind: "canvas", axes, canvas, width, height, ratio }, [canvas]);
        } else this.worker.post({ kind: "resize", axes, width, height, ratio });
    }

    #axes() {
        return [...this.figures.values()].flatMap((figure) => [...figure.axes.values()]);
    }

    /** Fits all figures into the window. */
    #layOut() {
        if (this.figures.size === 0) return;
        this.#places.layOut([...this.figures.values()]);
        this.#fit();
    }

    /** Fits axes into the places that they have. */
    #fit() {
        for (const view of this.#axes()) view.layOut();
        this.#align();
    }

    #align() {
        if (!this.#isUneven) return;
        this.#isUneven = false;
        for (const figure of this.figures.values()) figure.align();
    }

    /** The worker has drawn: axes and grid follow in the animation frame in which that is shown.
     * @param {Frame} frame */
    #takeFrame(frame) {
        const isFirst = this.#next.put(frame);
        if (document.hidden) this.#paint();
        else if (isFirst) requestAnimationFrame(() => this.#paint());
    }

    #paint() {
        this.#next.show((frame) => this.#paintFrame(frame));
    }

    /** @param {Frame} frame */
    #paintFrame(frame) {
        this.#isResized = false;
        let isHeldBack = false;
        try {
            this.#follow(frame);
            // Other limits may need other room for their numbers. Then the picture is right with
            // the worker's next frame, which is in the new sizes; nothing is waited for twice.
            isHeldBack = this.#isResized && !this.#isHeldBack;
        } finally {
            this.#isHeldBack = isHeldBack;
            if (!isHeldBack) this.#confirm(frame.stamp);
        }
    }

    /** Shows the limits that were drawn. @param {Frame} frame */
    #follow({ limits: drawn, colors, pictures }) {
        this.interaction.changed();
        for (const view of this.#axes()) {
            const { id } = view.description;
            if (drawn[id]) view.setDrawn(drawn[id], pictures[id]);
            showColorBars(view, colors);
        }
        this.#align();
    }

    /** @param {number} stamp of what is on the screen once this animation frame is */
    #confirm(stamp) {
        this.#painted.push(stamp);
        if (this.#painted.length === 1) this.#frameEnd.port2.postMessage(null);
    }

    #showStale() {
        const now = Date.now();
        const last = this.#isPaused || this.#isReplay ? 0 : (this.statistics?.news ?? 0);
        const said = [];
        for (const { element, heading, stale, watch } of this.figures.values()) {
            const since = watch.staleSince(now, this.#isLive, last);
            element.classList.toggle("is-stale", since !== null);
            const text = since === null ? "" : staleText(since, now);
            if (since !== null && stale.hidden) said.push(`${heading.textContent}: ${text}`);
            stale.hidden = since === null;
            stale.textContent = text;
        }
        if (said.length > 0) this.#say(said.join("; "));
    }

    /** For those who do not see it. @param {string} text */
    #say(text) {
        byId("said").textContent = text;
    }

    /** @param {Error} error */
    #report(error) {
        const LATEST = 20;
        this.errors.push(error.message);
        if (this.errors.length > LATEST) this.errors.shift();
        this.status.showError(error.message);
    }
}

// Within reach of the browser's console and of tests.
Object.assign(globalThis, { kirowebPage: new Page() });

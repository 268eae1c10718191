// The worker's middle: what comes from the engine, or from a recording, and from the main thread meets
// here.

import { Recorder } from "../recording/recorder.mjs";
import { MainAccess } from "./access.mjs";
import { LimitsEvents } from "./events.mjs";
import { Flusher } from "./flusher.mjs";
import { gpuPoints } from "./gpu_points.mjs";
import { Latencies } from "./latencies.mjs";
import { Live } from "./live.mjs";
import { errorOf } from "./painter.mjs";
import { answerQuery } from "./queries.mjs";
import { Replay } from "./replay.mjs";
import { Scene } from "./scene.mjs";
import { Stage } from "./stage.mjs";
import { Statistics } from "./statistics.mjs";

/** @typedef {import("../messages.mjs").ToMain} ToMain */
/** @typedef {import("../messages.mjs").ToWorker} ToWorker */
/** @typedef {import("../messages.mjs").Outcome} Outcome */
/** @typedef {import("./frames.mjs").Frame} Frame */

/**
 * @typedef {object} Surroundings
 * @property {(message: ToMain, moved?: Transferable[]) => void} post to the main thread
 * @property {(call: () => void) => void} onFrame calls in the next animation frame
 * @property {(call: () => void) => void} afterPaint calls in a task of its own: behind the animation
 *   frame, if one goes on
 * @property {() => number} now microseconds since 1970
 * @property {import("../../protocol.mjs").Options} [options] of the connection
 */

/** Milliseconds for which the same error is not told again. */
const SAME_ERROR = 1000;

/** @template {ToWorker["kind"]} K @typedef {Extract<ToWorker, {kind: K}>} Of */

export class Session {
    #surroundings;
    #access;
    #statistics;
    #scene = new Scene();
    #limitsEvents;
    /** @type {Live | Replay | null} */
    #source = null;
    /** The number of the last command that the scene has. */
    #sequence = 0;
    /** @type {Recorder | null} */
    #recorder = null;
    #isHidden = false;
    #isPaused = false;
    /** Whether everything was asked for again, and nothing that builds on it was drawn since. */
    #isAsked = false;
    #lastError = { text: "", time: 0 };

    /** @param {Surroundings} surroundings */
    constructor(surroundings) {
        this.#surroundings = surroundings;
        const { post, onFrame, afterPaint } = surroundings;
        this.#access = new MainAccess(post);
        this.stage = new Stage(post);
        this.#statistics = new Statistics(post);
        this.flusher = new Flusher({
            apply: (frame) => this.#apply(frame),
            unseen: () => (this.#isHidden ? "hidden" : this.#isPaused ? "paused" : null),
            isReady: () => this.stage.isReady,
            paint: () => this.#paint(),
            onFrame,
            afterPaint,
            answer: (frame, outcome) => this.#answer(frame, outcome),
            counted: () => this.#statistics.countFrame(this.#scene.frame),
        });
        this.#limitsEvents = new LimitsEvents(
            (event) => this.#publish(event),
            (axes) => this.#describeLimits(axes),
        );
        gpuPoints.whenLost = () => {
            this.stage.drawAll();
            this.flusher.request();
        };
        this.stage.show(this.#scene);
    }

    /** From the main thread. @param {ToWorker} message */
    receive(message) {
        const handler = this.#handlers[message.kind];
        if (handler) /** @type {(message: any) => void} */ (handler)(message);
        else void answerQuery(this.stage, /** @type {any} */ (message), this.#surroundings.post);
    }

    /** @type {Partial<{[K in ToWorker["kind"]]: (message: Of<K>) => void}>} */
    #handlers = {
        start: ({ address, theme, hidden }) => {
            this.stage.setTheme(theme);
            this.#isHidden = hidden;
            if (address !== null) this.#begin(() => this.#connect(address));
        },
        replay: ({ files, at }) => this.#begin(() => this.#replay(files, at)),
        player: ({ wish }) => {
            if (this.#source instanceof Replay) this.#source.do(wish);
        },
        told: ({ id, value }) => this.#access.told(id, value),
        link: () => this.#access.linkOpened(),
        laid: ({ stamp }) => {
            this.stage.laid(stamp);
            this.flusher.request();
        },
        canvas: ({ axes, canvas, width, height, ratio }) => {
            this.stage.addCanvas(axes, canvas, { width, height, ratio });
            this.flusher.request();
        },
        resize: ({ axes, width, height, ratio }) => {
            this.stage.resize(axes, { width, height, ratio });
            this.flusher.request();
        },
        gone: ({ axes }) => this.stage.removeCanvas(axes),
        view: ({ axes, x, y, y2 }) => {
            const changed = this.stage.setView(axes, { x, y, y2 });
            for (const id of changed) this.#limitsEvents.changed(id);
            if (changed.length > 0) this.flusher.requestSoon();
        },
        visible: ({ series, visible }) => {
            this.stage.setVisible(series, visible);
            this.#show();
        },
        theme: ({ theme }) => {
            this.stage.setTheme(theme);
            this.#show();
        },
        hidden: ({ hidden }) => {
            this.#isHidden = hidden;
            this.flusher.seenChanged();
        },
        pause: ({ paused }) => this.#pause(paused),
        painted: ({ stamp }) => this.flusher.confirm(stamp),
        pick: ({ axes, x, y, near }) => this.#publish({ event: "pick", axes, x, y, ...near }),
        key: ({ key, axes }) => this.#publish({ event: "key", key, axes }),
        control: ({ id, value }) => this.#publish({ event: "control", id, value }),
        record: ({ most }) => this.#record(most),
        latency: ({ id }) => this.#tellLatency(id),
        report: ({ text }) => this.report(new Error(text)),
        retry: () => this.#source?.retry(),
        close: () => {
            this.#statistics.end();
            this.#source?.close();
        },
    };

    // --- Where frames come from ---------------------------------------------------------------

    /** Another source, from nothing on. @param {() => Live | Replay} open */
    #begin(open) {
        this.#source?.close();
        this.#recorder?.end();
        this.#forget();
        this.stage.forget();
        this.#scene = new Scene();
        this.#sequence = 0;
        this.#statistics.begin(() => ({
            bytes: this.#source?.received ?? 0,
            recorded: this.#recorder?.bytes ?? 0,
        }));
        this.#source = open();
    }

    /** Nothing that was under way means anything any more. */
    #forget() {
        this.#isAsked = false;
        this.#limitsEvents.forget();
        this.flusher.forget();
    }

    /** @param {string} address */
    #connect(address) {
        const { post, now, options } = this.#surroundings;
        return new Live(address, {
            take: (frame) => this.flusher.take(frame),
            changed: (event) => {
                this.#recorder?.connection({ event });
                if (event === "new view") this.#forget();
            },
            heard: () => this.#statistics.countNews(),
            report: (error) => this.report(error),
            post,
            now,
            access: this.#access,
            options,
        });
    }

    /** @param {(Blob | string)[]} files @param {import("../messages.mjs").Beginning} at */
    #replay(files, at) {
        const { post, now } = this.#surroundings;
        return new Replay(files, {
            take: (frame) => this.flusher.take(frame),
            report: (error) => this.report(error),
            post,
            now,
            token: () => this.#access.token(),
            at,
        });
    }

    /** @param {Record<string, any>} event */
    #publish(event) {
        this.#recorder?.control(event);
        this.#source?.publish(event);
    }

    // --- Frames -------------------------------------------------------------------------------

    /** What cannot be carried out costs the frame, and holds nothing else up. @param {Frame} frame */
    #apply(frame) {
        const attempt = (/** @type {string} */ what, /** @type {() => void} */ call) => {
            try {
                call();
            } catch (thrown) {
                const error = errorOf(what, thrown);
                frame.error ??= error;
                this.report(error);
            }
        };
        for (const { side, scene } of frame.scenes ?? []) {
            this.#scene = this.#scene.withSide(side, scene);
        }
        for (const [command, data] of frame.commands) {
            if (command.cmd === "beginFrame" && command.whole === true) this.#scene = new Scene();
            attempt(command.cmd, () => this.#scene.apply(command, data));
            this.#sequence = Number(command.seq);
        }
        this.#recorder?.frame(frame, this.#scene);
        // A whole frame repeats what is known.
        if (!frame.isWhole) this.#statistics.countChanged(this.#scene.touched);
        this.#scene.touched.clear();
        if (!this.#isPaused) attempt("layout", () => this.#show());
    }

    /** Shows the scene as it is now. */
    #show() {
        if (!this.#isPaused && this.stage.scene !== this.#scene) this.stage.show(this.#scene);
        this.stage.announce();
        this.flusher.request();
    }

    /** What is seen stays as it is, while the data go on being taken in.
     * @param {boolean} isPaused */
    #pause(isPaused) {
        if (isPaused === this.#isPaused) return;
        this.#isPaused = isPaused;
        if (isPaused) this.stage.show(this.#scene.snapshot());
        this.flusher.seenChanged();
        this.#show();
    }

    /** What a recording has is by the clocks of then. */
    get #clock() {
        return this.#source instanceof Live ? this.#source.clock : null;
    }

    /** @param {number} id of the question */
    #tellLatency(id) {
        const clock = this.#clock;
        const latencies = this.#source?.latencies ?? new Latencies(0);
        const columns = latencies.copy();
        const moved = Object.values(columns).map(({ buffer }) => buffer);
        const { total } = latencies;
        this.#surroundings.post({ kind: "latency", id, total, columns, clock }, moved);
    }

    /** @returns {{stamp: number, errors: Error[], begun: number}} */
    #paint() {
        const begun = this.#surroundings.now();
        let painted;
        try {
            painted = this.stage.paint();
        } catch (thrown) {
            painted = { stamp: 0, errors: [errorOf("paint", thrown)] };
        }
        painted.errors.forEach((error) => this.report(error));
        return { ...painted, begun };
    }

    /** @param {Frame} frame @param {Outcome} outcome */
    #answer(frame, outcome) {
        const { isWhole, token } = frame;
        if (!token) return;
        const sent = this.#surroundings.now();
        this.#source?.answer(frame, outcome, sent);
        this.#recorder?.token(frame, outcome, sent);
        const { serverSendTS } = token.command;
        this.#statistics.countAnswer(
            outcome,
            serverSendTS ? sent + (this.#clock?.shift ?? 0) - serverSendTS : sent - token.received,
        );
        if (outcome === "failed") this.#askForAll();
        else if (!isWhole) this.#isAsked = false;
    }

    /** What failed may have left objects without what comes next builds on. Once: a frame that
     * always fails would be sent again and again. */
    #askForAll() {
        if (!this.#isAsked) this.#source?.askForAll();
        this.#isAsked = true;
    }

    /** Begins to, or ends. @param {number | null} most bytes */
    #record(most) {
        if (most === null) {
            this.#recorder?.end();
            return;
        }
        if (this.#recorder) return;
        const { post, now } = this.#surroundings;
        const ended = (/** @type {Blob} */ file, /** @type {string} */ reason) => {
            this.#recorder = null;
            post({ kind: "recorded", file, reason });
        };
        this.#recorder = new Recorder({ now, most, ended });
        this.#recorder.begin(this.#source?.title ?? "", this.#scene, this.#sequence);
    }

    /** @param {number} id of axes @returns {Record<string, any> | null} */
    #describeLimits(id) {
        const limits = this.stage.limits().get(id);
        const size = this.stage.sizes.get(id);
        if (!limits || !size) return null;
        const view = this.stage.views.get(id);
        const isHome = !view?.x && !view?.y && !view?.y2;
        const { width, height } = size;
        const { x, y, y2 } = limits;
        return { x, y, ...(y2 && { y2 }), width, height, ...(isHome && { home: true }) };
    }

    /** @param {Error} error */
    report(error) {
        const time = this.#surroundings.now() / 1000;
        const { message } = error;
        // What fails in one frame fails in the next.
        if (message === this.#lastError.text && time < this.#lastError.time + SAME_ERROR) return;
        this.#lastError = { text: message, time };
        this.#recorder?.error(message);
        this.#surroundings.post({ kind: "error", text: message });
        this.#source?.reportError(error);
    }
}

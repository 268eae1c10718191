// Plays recordings on one time line: what was shown at a moment since their beginning is given as frames.

import { isSamePlace } from "./chunks.mjs";

/** @typedef {import("./track.mjs").Track} Track */
/** @typedef {import("./track.mjs").Stop} Stop */
/** @typedef {import("../worker/frames.mjs").Frame} Frame */

/** Where to go: nowhere, or to a stop of each track, at that time; null: that one stays where it is.
 * @typedef {{stops: (Stop | null)[], time: number, why?: string} | null} Goal */

/**
 * @typedef {object} Moment
 * @property {number} time milliseconds since the beginning
 * @property {number[]} frames the engine's number, of each track
 * @property {boolean} isPlaying
 * @property {string} why this one, where somebody asked for the next that is not as it should be
 */

/**
 * @typedef {object} Surroundings
 * @property {(frame: Frame) => void} give a frame to be shown; `answered` has to follow
 * @property {(moment: Moment) => void} moved
 * @property {(error: Error) => void} report
 * @property {() => number} now milliseconds, of any beginning
 * @property {(call: () => void, milliseconds: number) => () => void} after calls then; what it
 *   returns keeps it from that
 */

/** Milliseconds between two times that are told while no frame comes. */
const TELL_EVERY = 100;
/** The finest that timers can tell. */
const TICK = 1;
const MOST_STEPS = 16;

export class Player {
    #tracks;
    #surroundings;
    #time = 0;
    #why = "";
    /** How to find what was asked for. @type {{isStep: boolean, find: () => Promise<Goal>}[]} */
    #wishes = [];
    #isPlaying = false;
    #speed = 1;
    /** When the recording's time was what. */
    #clock = { now: 0, time: 0 };
    /** @type {() => void} */
    #cancelTimer = () => {};
    /** @type {Promise<void> | null} */
    #work = null;
    /** @type {() => void} */
    #answered = () => {};
    #isClosed = false;

    /** @param {Track[]} tracks which begin together, and end when the last one does
     * @param {Surroundings} surroundings */
    constructor(tracks, surroundings) {
        this.#tracks = tracks;
        this.#surroundings = surroundings;
        /** Milliseconds. */
        this.duration = Math.max(...tracks.map(({ duration }) => duration));
    }

    /** Ends when nothing is being looked for or shown. */
    async settled() {
        while (this.#work) await this.#work;
    }

    /** @param {number} time milliseconds since the beginning */
    seek(time) {
        this.#ask(false, () => this.#at(Math.min(Math.max(time, 0), this.duration)));
    }
    /** To the next frame or the one before; ends playing. @param {1 | -1} by */
    step(by) {
        this.stop();
        this.#ask(true, () => (by > 0 ? this.#next() : this.#before()));
    }
    /** To the next frame that was late or failed, or with an error; ends playing. */
    nextTrouble() {
        this.stop();
        this.#ask(true, () => this.#trouble());
    }
    /** From here on; from the beginning, at the end. @param {number} speed above 0; Infinity: each
     * frame, as fast as it can be shown */
    play(speed) {
        this.#speed = speed;
        this.#isPlaying = true;
        this.#setClock();
        this.#ask(true, async () => {
            const isBegun = this.#tracks.some(({ shown }) => shown);
            return isBegun && (await this.#next()) ? null : this.#at(0);
        });
        this.#tell();
    }
    stop() {
        if (this.#isPlaying) this.#stop();
    }
    #stop() {
        this.#isPlaying = false;
        this.#cancelTimer();
        this.#tell();
    }
    /** The frame that was given is on the screen, or nobody sees it. */
    answered() {
        this.#answered();
    }
    /** Nothing is given any more. */
    close() {
        this.#isClosed = true;
        this.#wishes = [];
        this.stop();
        this.#answered();
    }

    // --- What is to be done -------------------------------------------------------------------

    /** @param {boolean} isStep from where it is then: it waits for those before
     * @param {() => Promise<Goal>} find */
    #ask(isStep, find) {
        if (this.#isClosed) return;
        if (!isStep) this.#wishes = [];
        if (this.#wishes.length < MOST_STEPS) this.#wishes.push({ isStep, find });
        this.#begin();
    }

    #begin() {
        this.#cancelTimer();
        this.#work ??= this.#doAll().finally(() => {
            this.#work = null;
            // Asked for while it ended.
            if (this.#wishes.length > 0) this.#begin();
        });
    }

    async #doAll() {
        while (!this.#isClosed) {
            const wish = this.#wishes.shift();
            if (!wish && !this.#isPlaying) return;
            try {
                const goal = await (wish ? wish.find() : this.#due());
                // What is not wanted any more is not built.
                if (goal && !this.#wishes.some(({ isStep }) => !isStep)) await this.#goTo(goal);
                else if (!goal && !wish) return;
                if (wish) this.#setClock();
            } catch (thrown) {
                // Also when it did not play: whoever asked has gone ahead to where nothing is shown.
                this.#why = "";
                this.#stop();
                this.#surroundings.report(/** @type {Error} */ (thrown));
            }
        }
    }

    #setClock() {
        this.#clock = { now: this.#surroundings.now(), time: this.#time };
    }

    /** What is to be shown now while it plays; null: later, or it is over.
     * @returns {Promise<Goal>} */
    async #due() {
        const next = await this.#next();
        const { now, after } = this.#surroundings;
        if (this.#speed === Infinity && next) return next;
        const passed = (now() - this.#clock.now) * this.#speed;
        const time = Math.min(this.#clock.time + passed, this.duration);
        if (next && next.time <= time) return this.#at(time);
        this.#time = this.#speed === Infinity ? this.duration : time;
        if (!next && this.#time >= this.duration) {
            this.stop();
            return null;
        }
        this.#tell();
        const left = ((next ? next.time : this.duration) - time) / this.#speed;
        this.#cancelTimer = after(() => this.#begin(), Math.min(Math.max(left, TICK), TELL_EVERY));
        return null;
    }

    /** @param {NonNullable<Goal>} goal */
    async #goTo({ stops, time, why = "" }) {
        const frames = await this.#ofEach((track, i) => {
            const stop = stops[i];
            return stop && !isSamePlace(stop, track.shown) ? track.frameAt(stop) : null;
        });
        if (frames.some((frame) => frame !== null)) {
            // What is being waited for is the screen.
            const answer = new Promise((/** @type {(value?: any) => void} */ answered) => {
                this.#answered = answered;
            });
            if (this.#isClosed) return;
            this.#tracks.forEach((track, i) => {
                const frame = frames[i];
                if (frame) Object.assign(track, { shown: stops[i], frame: frame.number });
            });
            this.#surroundings.give(together(frames.flatMap((frame) => frame ?? [])));
            await answer;
        }
        this.#time = time;
        this.#why = why;
        this.#tell();
    }

    #tell() {
        this.#surroundings.moved({
            time: this.#time,
            frames: this.#tracks.map(({ frame }) => frame),
            isPlaying: this.#isPlaying,
            why: this.#why,
        });
    }

    // --- Where tracks are ---------------------------------------------------------------------

    /** One after the other. An error says whose it is, where there are others.
     * @template T @param {(track: Track, i: number) => Promise<T> | null} call
     * @returns {Promise<(T | null)[]>} */
    async #ofEach(call) {
        const results = [];
        for (const [i, track] of this.#tracks.entries()) {
            try {
                results.push(await call(track, i));
            } catch (thrown) {
                if (this.#tracks.length < 2) throw thrown;
                const { message } = /** @type {Error} */ (thrown);
                throw new Error(`${track.name}: ${message}`, { cause: thrown });
            }
        }
        return results;
    }

    /** One that is over keeps its last frame; one whose first is still to come shows that.
     * @param {number} time @returns {Promise<Goal>} */
    async #at(time) {
        const stops = await this.#ofEach((track) => track.at(time));
        return stops.some(Boolean) ? { stops, time } : null;
    }

    /** To the frame that comes first, of any track. @returns {Promise<Goal>} */
    async #next() {
        const found = await this.#ofEach((track) => track.beside(1));
        const times = found.map((stop, i) => (stop ? this.#tracks[i].timeOf(stop) : Infinity));
        const time = Math.min(...times);
        if (time === Infinity) return null;
        const first = times.indexOf(time);
        return { stops: found.map((stop, i) => (i === first ? stop : null)), time };
    }

    /** Back from the frame that came last, of any track. @returns {Promise<Goal>} */
    async #before() {
        const found = await this.#ofEach((track) => track.beside(-1));
        const shownAt = this.#tracks.map((track) => (track.shown ? track.timeOf(track.shown) : 0));
        const times = shownAt.map((time, i) => (found[i] ? time : -Infinity));
        // Of two at the same time the one that came second when somebody stepped on.
        const last = times.lastIndexOf(Math.max(...times));
        const stop = found[last];
        if (!stop) return null;
        shownAt[last] = this.#tracks[last].timeOf(stop);
        // A frame that is still to come is shown, but it is not that late.
        const time = Math.max(0, ...shownAt.filter((one) => one <= this.#time));
        return { stops: found.map((one, i) => (i === last ? one : null)), time };
    }

    /** @returns {Promise<Goal>} */
    async #trouble() {
        const found = await this.#ofEach((track) => track.nextTrouble());
        const times = found.map((one, i) => (one ? this.#tracks[i].timeOf(one.stop) : Infinity));
        const time = Math.min(...times);
        if (time === Infinity) return null;
        const first = times.indexOf(time);
        const { stop, why } = /** @type {{stop: Stop, why: string}} */ (found[first]);
        const stops = await this.#ofEach((track, i) => (i === first ? null : track.at(time)));
        stops[first] = stop;
        const { name } = this.#tracks[first];
        return { stops, time, why: this.#tracks.length > 1 ? `${name}: ${why}` : why };
    }
}

/** What several tracks show, as one frame. @param {Frame[]} frames at least one @returns {Frame} */
function together(frames) {
    return {
        ...frames[0],
        isWhole: frames.every(({ isWhole }) => isWhole),
        commands: frames.flatMap(({ commands }) => commands),
        scenes: frames.flatMap(({ scenes = [] }) => scenes),
        error: frames.find(({ error }) => error)?.error ?? null,
    };
}

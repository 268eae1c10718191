// Plays a recording: finds what was shown at a moment, and gives it as frames.

import { Scene } from "../worker/scene.mjs";
import { BEGINNING, isBehind, isSamePlace, nextTo } from "./chunks.mjs";
import { Following, commandsOf, jsonOf } from "./following.mjs";
import { RecordingError } from "./reader.mjs";

/** @typedef {import("./chunks.mjs").Chunks} Chunks */
/** @typedef {import("./chunks.mjs").Place} Place */
/** @typedef {import("./reader.mjs").Message} Message */
/** @typedef {import("../worker/frames.mjs").Frame} Frame */

/** A frame, where its mark is. @typedef {Place & {message: Message}} Stop */
/** Where to go: nowhere, or to a stop, at that time or another one behind it.
 * @typedef {{stop: Stop, time?: number, why?: string} | null} Goal */

/**
 * @typedef {object} Moment
 * @property {number} time milliseconds since the beginning
 * @property {number} frame the engine's number
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

/** Bytes of chunks that are gone through behind what is shown, before all is made anew. */
const NEAR = 32 * 1024 * 1024;
/** Milliseconds between two times that are told while no frame comes. */
const TELL_EVERY = 100;
/** The finest that timers can tell. */
const TICK = 1;
/** Messages between a frame and its token. */
const TOKEN_REACH = 4096;
const MOST_STEPS = 16;

/** Why a frame is to be looked at; null: it was as it should be.
 * @param {string | undefined} topic @param {Uint8Array} data @returns {string | null} */
export function troubleOf(topic, data) {
    if (topic === "errors") return String(jsonOf(data).error);
    if (topic !== "tokens") return null;
    const { outcome, reason } = jsonOf(data);
    if (outcome !== "late" && outcome !== "failed") return null;
    return reason ? `${outcome}: ${reason}` : String(outcome);
}

export class Player {
    #chunks;
    #surroundings;
    #near;
    /** What is shown. @type {Stop | null} */
    #shown = null;
    #frame = 0;
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
    /** Of a chunk, whether it is known that nothing in it is to be looked at.
     * @type {(chunk: number) => boolean} */
    isCalm = () => false;

    /** @param {Chunks} chunks @param {Surroundings} surroundings
     * @param {number} [near] bytes that are gone through from what is shown on */
    constructor(chunks, surroundings, near = NEAR) {
        this.#chunks = chunks;
        this.#near = near;
        this.#surroundings = surroundings;
    }

    /** Ends when nothing is being looked for or shown. */
    async settled() {
        while (this.#work) await this.#work;
    }

    /** @param {number} time milliseconds since the beginning */
    seek(time) {
        this.#ask(false, async () => {
            const stop = await this.#at(time);
            return stop && { stop, time: Math.min(Math.max(time, 0), this.#chunks.duration) };
        });
    }
    /** To the next frame or the one before; ends playing. @param {1 | -1} by */
    step(by) {
        this.stop();
        this.#ask(true, async () => {
            const stop = await this.#beside(by);
            return stop && { stop };
        });
    }
    /** To the next frame that was late or failed, or with an error; ends playing. */
    nextTrouble() {
        this.stop();
        this.#ask(true, () => this.#nextTrouble());
    }
    /** From here on; from the beginning, at the end. @param {number} speed above 0; Infinity: each
     * frame, as fast as it can be shown */
    play(speed) {
        this.#speed = speed;
        this.#isPlaying = true;
        this.#setClock();
        this.#ask(true, async () => {
            const isOver = !this.#shown || !(await this.#beside(1));
            const stop = isOver ? await this.#first() : null;
            return stop && { stop };
        });
        this.#tell();
    }
    stop() {
        if (!this.#isPlaying) return;
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
                this.stop();
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
        const next = await this.#beside(1);
        const { now, after } = this.#surroundings;
        if (this.#speed === Infinity && next) return { stop: next };
        const passed = (now() - this.#clock.now) * this.#speed;
        const time = Math.min(this.#clock.time + passed, this.#chunks.duration);
        if (next && this.#timeOf(next) <= time) {
            const stop = await this.#at(time);
            return stop && { stop, time };
        }
        this.#time = this.#speed === Infinity ? this.#chunks.duration : time;
        if (!next && this.#time >= this.#chunks.duration) {
            this.stop();
            return null;
        }
        this.#tell();
        const left = ((next ? this.#timeOf(next) : this.#chunks.duration) - time) / this.#speed;
        this.#cancelTimer = after(() => this.#begin(), Math.min(Math.max(left, TICK), TELL_EVERY));
        return null;
    }

    /** @param {NonNullable<Goal>} goal */
    async #goTo({ stop, time = this.#timeOf(stop), why = "" }) {
        if (!isSamePlace(stop, this.#shown)) {
            const frame = await this.#frameAt(stop);
            // What is being waited for is the screen.
            const answer = new Promise((/** @type {(value?: any) => void} */ answered) => {
                this.#answered = answered;
            });
            if (this.#isClosed) return;
            this.#shown = stop;
            this.#frame = frame.number;
            this.#surroundings.give(frame);
            await answer;
        }
        this.#time = time;
        this.#why = why;
        this.#tell();
    }

    #tell() {
        const isPlaying = this.#isPlaying;
        this.#surroundings.moved({
            time: this.#time,
            frame: this.#frame,
            isPlaying,
            why: this.#why,
        });
    }

    // --- Where frames are ---------------------------------------------------------------------

    /** @param {Stop} stop @returns {number} milliseconds since the beginning */
    #timeOf({ message }) {
        return this.#chunks.timeOf(message.time);
    }
    /** @param {Message} message @param {string[]} topics */
    #isOf(message, ...topics) {
        return topics.includes(String(this.#chunks.topicOf(message)));
    }

    /** What a recording shows first: a page's own begins with a snapshot.
     * @returns {Promise<Stop | null>} */
    #first() {
        return this.#chunks.search(BEGINNING, 1, (one) => this.#isOf(one, "frames", "snapshots"));
    }

    /** The last one that is there at this time, or the first of all. @param {number} time
     * @returns {Promise<Stop | null>} */
    async #at(time) {
        const { chunks } = this.#chunks.reader;
        let chunk = chunks.length - 1;
        while (chunk > 0 && this.#chunks.timeOf(chunks[chunk].first) > time) --chunk;
        const found = await this.#lastBefore(
            { chunk, index: Infinity },
            (message) => this.#chunks.timeOf(message.time) <= time,
        );
        return found ?? this.#first();
    }

    /** @param {1 | -1} step @returns {Promise<Stop | null>} */
    async #beside(step) {
        if (!this.#shown) return this.#first();
        const from = nextTo(this.#shown, step);
        if (step < 0) return this.#lastBefore(from, () => true);
        return this.#chunks.search(from, 1, (message) => this.#isOf(message, "frames"));
    }

    /** @param {Place} from @param {(message: Message) => boolean} isWanted
     * @returns {Promise<Stop | null>} */
    async #lastBefore(from, isWanted) {
        /** @type {Stop | null} */
        let first = null;
        const mark = await this.#chunks.search(from, -1, (message, place) => {
            if (!isWanted(message)) return false;
            // Behind a frame's mark it shows nothing else.
            if (this.#isOf(message, "snapshots")) first = { ...place, message };
            return this.#isOf(message, "frames");
        });
        return mark ?? first;
    }

    /** @returns {Promise<Goal>} */
    async #nextTrouble() {
        let from = this.#shown ? nextTo(this.#shown, 1) : BEGINNING;
        for (;;) {
            let why = "";
            const found = await this.#chunks.search(
                from,
                1,
                (message, place) => {
                    const trouble = this.#chunks.at(place, () =>
                        troubleOf(this.#chunks.topicOf(message), message.data),
                    );
                    why = trouble ?? "";
                    return trouble !== null;
                },
                (chunk) => this.isCalm(chunk),
            );
            if (!found) return null;
            const stop = await this.#frameOf(found);
            if (stop && (!this.#shown || isBehind(stop, this.#shown))) return { stop, why };
            from = nextTo(found, 1);
        }
    }

    /** Whose token that is, or which was the last one when an error came. @param {Stop} trouble */
    async #frameOf(trouble) {
        const { message } = trouble;
        if (this.#isOf(message, "errors")) return this.#lastBefore(trouble, () => true);
        const token = this.#json(trouble);
        let left = TOKEN_REACH;
        const found = await this.#chunks.search(trouble, -1, (one, place) => {
            if (--left === 0) return true;
            if (!this.#isOf(one, "frames")) return false;
            const { frame, attempt } = this.#json({ ...place, message: one });
            return frame === token.frame && attempt === token.attempt;
        });
        return left > 0 ? found : null;
    }

    /** @param {Stop} stop @returns {any} */
    #json(stop) {
        return this.#chunks.at(stop, () => jsonOf(stop.message.data) ?? {});
    }

    // --- What frames show ---------------------------------------------------------------------

    /** What brings the page to this frame. @param {Stop} stop
     * @returns {Promise<Frame>} */
    async #frameAt(stop) {
        const mark = this.#isOf(stop.message, "frames") ? this.#json(stop) : { attempt: 1 };
        const head = { attempt: Number(mark.attempt), token: null, error: null };
        const commands = await this.#changes(stop);
        if (commands) {
            return { ...head, number: Number(mark.frame), isWhole: false, commands, scene: null };
        }
        const { scene, error } = await this.#sceneAt(stop);
        const number = Number(mark.frame ?? scene.frame);
        return { ...head, number, isWhole: true, commands: [], scene, error };
    }

    /** @param {Place} shown @param {Place} stop */
    #isNear(shown, stop) {
        if (!isBehind(stop, shown)) return false;
        const between = this.#chunks.reader.chunks.slice(shown.chunk + 1, stop.chunk + 1);
        return between.reduce((sum, { size }) => sum + size, 0) <= this.#near;
    }

    /** What brings the page from what it shows to this frame; null: that is not near, or damaged.
     * @param {Place} stop @returns {Promise<Frame["commands"] | null>} */
    async #changes(stop) {
        if (!this.#shown || !this.#isNear(this.#shown, stop)) return null;
        /** @type {Frame["commands"]} */
        const commands = [];
        const following = new Following((command, data) => commands.push([command, data]));
        try {
            await this.#through(nextTo(this.#shown, 1), stop, following);
            return commands;
        } catch (thrown) {
            // Something whole may stand behind it.
            if (thrown instanceof RecordingError) return null;
            throw thrown;
        }
    }

    /** @param {Place} from @param {Place} stop @param {Following} following
     * @param {(message: Message) => void} [look] */
    async #through(from, stop, following, look = () => {}) {
        await this.#chunks.search(from, 1, (message, place) => {
            this.#chunks.at(place, () => {
                look(message);
                following.follow(this.#chunks.topicOf(message), message.data);
            });
            return isSamePlace(place, stop);
        });
    }

    /** All that is there with a frame, from the last moment on when a recording has all of it.
     * @param {Place} stop @returns {Promise<{scene: Scene, error: Error | null}>} */
    async #sceneAt(stop) {
        /** @type {Scene | null} */
        let scene = null;
        /** @type {Error | null} */
        let error = null;
        const apply = (/** @type {any} */ command, /** @type {Uint8Array | null} */ data) => {
            if (command.cmd === "beginFrame" && command.whole === true) scene = new Scene();
            try {
                scene?.apply(command, data);
            } catch (thrown) {
                // As live, what cannot be carried out holds nothing else up.
                error ??= new Error(`${command.cmd}: ${/** @type {Error} */ (thrown).message}`);
            }
        };
        const begin = (/** @type {Message} */ message) => {
            if (scene || !this.#isOf(message, "snapshots")) return;
            scene = new Scene();
            for (const [command, data] of commandsOf(message.data)) apply(command, data);
        };
        await this.#through(await this.#keyOf(stop), stop, new Following(apply), begin);
        const made = /** @type {Scene | null} */ (scene);
        if (!made) throw this.#chunks.reader.errorAt(stop.chunk, "nothing whole is before this");
        made.touched.clear();
        return { scene: made, error };
    }

    /** From where everything is there: a snapshot, or the end of the frame before a whole one.
     * @param {Place} stop @returns {Promise<Place>} */
    async #keyOf(stop) {
        const key = await this.#chunks.search(stop, -1, (message, place) => {
            if (this.#isOf(message, "snapshots")) return true;
            if (!this.#isOf(message, "frames")) return false;
            return this.#json({ ...place, message }).kind === "whole";
        });
        if (!key) return BEGINNING;
        if (this.#isOf(key.message, "snapshots")) return key;
        const before = nextTo(key, -1);
        return (
            (await this.#chunks.search(before, -1, (one) => this.#isOf(one, "frames"))) ?? BEGINNING
        );
    }
}

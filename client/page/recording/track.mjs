// One recording as it is played: where its frames are, and what they show.

import { SIDE } from "../sides.mjs";
import { MOST_REPLAYED, Scene } from "../worker/scene.mjs";
import { BEGINNING, isBehind, isSamePlace, nextTo } from "./chunks.mjs";
import { Following, commandsOf, jsonOf } from "./following.mjs";
import { RecordingError } from "./reader.mjs";

/** @typedef {import("./chunks.mjs").Chunks} Chunks */
/** @typedef {import("./chunks.mjs").Place} Place */
/** @typedef {import("./reader.mjs").Message} Message */
/** @typedef {import("../worker/frames.mjs").Frame} Frame */
/** @typedef {import("../worker/inbox.mjs").Command} Command */

/** A frame, where its mark is. @typedef {Place & {message: Message}} Stop */

/** Bytes of chunks that are gone through behind what is shown, before all is made anew. */
export const NEAR = 32 * 1024 * 1024;
/** The same where something whole is nearer. */
const CLOSE = 2 * 1024 * 1024;
/** Messages between a frame and its token. */
const TOKEN_REACH = 4096;

/** Why a frame is to be looked at; null: it was as it should be.
 * @param {string | undefined} topic @param {Uint8Array} data @returns {string | null} */
export function troubleOf(topic, data) {
    if (topic === "errors") return String(jsonOf(data).error);
    if (topic !== "tokens") return null;
    const { outcome, reason } = jsonOf(data);
    if (outcome !== "late" && outcome !== "failed") return null;
    return reason ? `${outcome}: ${reason}` : String(outcome);
}

/** Whether all is new from here on. @param {Command} command */
const isWhole = ({ cmd, whole }) => cmd === "beginFrame" && whole === true;

/** Each function that looks for something is rejected with a `RecordingError` where the file is
 * damaged on the way. */
export class Track {
    #chunks;
    #near;
    #close;
    #elements;
    #side;
    /** What is shown. @type {Stop | null} */
    shown = null;
    /** The engine's number of that. */
    frame = 0;
    /** Of a chunk, whether it is known that nothing in it is to be looked at.
     * @type {(chunk: number) => boolean} */
    isCalm = () => false;

    /** @param {Chunks} chunks
     * @param {{name?: string, side?: number, near?: number, close?: number, elements?: number}} [options]
     *   side: on which its objects are shown; near: bytes that are gone through from what is shown on;
     *   close: the same where something whole is nearer, so that the page draws less of it anew;
     *   elements: bytes that they may take */
    constructor(
        chunks,
        { name = "", side = 0, near = NEAR, close = CLOSE, elements = MOST_REPLAYED } = {},
    ) {
        this.#chunks = chunks;
        this.#near = near;
        this.#close = close;
        this.#elements = elements;
        this.#side = side;
        this.name = name;
    }

    get duration() {
        return this.#chunks.duration;
    }

    /** @param {Stop} stop @returns {number} milliseconds since the beginning */
    timeOf({ message }) {
        return this.#chunks.timeOf(message.time);
    }
    /** @param {Message} message @param {string[]} topics */
    #isOf(message, ...topics) {
        return topics.includes(String(this.#chunks.topicOf(message)));
    }

    /** What a recording shows first: a page's own begins with a snapshot.
     * @returns {Promise<Stop | null>} */
    first() {
        return this.#chunks.search(BEGINNING, 1, (one) => this.#isOf(one, "frames", "snapshots"));
    }

    /** The last one that is there at this time, or the first of all. @param {number} time
     * @returns {Promise<Stop | null>} */
    async at(time) {
        const { chunks } = this.#chunks.reader;
        let chunk = chunks.length - 1;
        while (chunk > 0 && this.#chunks.timeOf(chunks[chunk].first) > time) --chunk;
        const found = await this.#lastBefore(
            { chunk, index: Infinity },
            (message) => this.#chunks.timeOf(message.time) <= time,
        );
        return found ?? this.first();
    }

    /** @param {1 | -1} step @returns {Promise<Stop | null>} */
    async beside(step) {
        if (!this.shown) return this.first();
        const from = nextTo(this.shown, step);
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

    /** The next frame that was late or failed, or with an error, and why.
     * @returns {Promise<{stop: Stop, why: string} | null>} */
    async nextTrouble() {
        let from = this.shown ? nextTo(this.shown, 1) : BEGINNING;
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
            if (stop && (!this.shown || isBehind(stop, this.shown))) return { stop, why };
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
    async frameAt(stop) {
        const mark = this.#isOf(stop.message, "frames") ? this.#json(stop) : { attempt: 1 };
        const head = { attempt: Number(mark.attempt), token: null, error: null };
        const commands = await this.#changes(stop);
        if (commands) {
            return { ...head, number: Number(mark.frame), isWhole: false, commands };
        }
        const { scene, error } = await this.#sceneAt(stop);
        const number = Number(mark.frame ?? scene.frame);
        const scenes = [{ side: this.#side, scene }];
        return { ...head, number, isWhole: true, commands: [], scenes, error };
    }

    /** Whether what brings the page from what it shows to this frame is the shorter way there.
     * @param {Place} shown @param {Place} stop */
    async #isNear(shown, stop) {
        if (!isBehind(stop, shown)) return false;
        const between = this.#chunks.reader.chunks.slice(shown.chunk + 1, stop.chunk + 1);
        const bytes = between.reduce((sum, { size }) => sum + size, 0);
        if (bytes > this.#near) return false;
        return bytes <= this.#close || !isBehind(await this.#keyOf(stop), shown);
    }

    /** What brings the page from what it shows to this frame; null: that is not near, or damaged, or
     * all is new on the way.
     * @param {Place} stop @returns {Promise<Frame["commands"] | null>} */
    async #changes(stop) {
        if (!this.shown || !(await this.#isNear(this.shown, stop))) return null;
        /** @type {Frame["commands"]} */
        const commands = [];
        const following = new Following((command, data) =>
            commands.push([this.#own(command), data]),
        );
        try {
            await this.#through(nextTo(this.shown, 1), stop, following);
            return commands.some(([command]) => isWhole(command)) ? null : commands;
        } catch (thrown) {
            // Something whole may stand behind it.
            if (thrown instanceof RecordingError) return null;
            throw thrown;
        }
    }

    /** With the numbers of this side. @param {Command} command which is changed */
    #own(command) {
        for (const name of ["id", "parent"]) {
            const number = command[name];
            if (number >= SIDE) throw new RangeError(`${number} is no object's number`);
            if (typeof number === "number") command[name] = number + this.#side * SIDE;
        }
        return command;
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
        const beginScene = () => (scene = new Scene(this.#elements));
        const apply = (/** @type {any} */ command, /** @type {Uint8Array | null} */ data) => {
            if (isWhole(command)) beginScene();
            try {
                scene?.apply(this.#own(command), data);
            } catch (thrown) {
                // As live, what cannot be carried out holds nothing else up.
                error ??= new Error(`${command.cmd}: ${/** @type {Error} */ (thrown).message}`);
            }
        };
        const begin = (/** @type {Message} */ message) => {
            if (scene || !this.#isOf(message, "snapshots")) return;
            beginScene();
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

// Goes through a recording once, for what its time line shows.

import { Latencies } from "../worker/latencies.mjs";
import { jsonOf } from "./following.mjs";
import { MARK, STRETCHES } from "./marks.mjs";
import { RecordingError } from "./reader.mjs";
import { troubleOf } from "./track.mjs";

/** @typedef {import("./chunks.mjs").Chunks} Chunks */
/** @typedef {import("./reader.mjs").Message} Message */

/** Frames whose token may still come. */
const MOST_OPEN = 64;

export class Survey {
    #chunks;
    #duration;
    /** Of each chunk, whether it was gone through and nothing is to be looked at. */
    #calm;
    /** When frames were that have no token yet. @type {Map<string, number>} */
    #open = new Map();
    #latencies;
    marks = new Uint8Array(STRETCHES);
    /** How many chunks were gone through. */
    done = 0;

    /** @param {Chunks} chunks @param {number} [duration] of the time line, milliseconds
     * @param {Latencies} [latencies] that get those of its frames */
    constructor(chunks, duration = chunks.duration, latencies = new Latencies(0)) {
        this.#chunks = chunks;
        this.#duration = duration;
        this.#latencies = latencies;
        this.#calm = new Uint8Array(chunks.count);
    }

    /** @param {number} chunk its number */
    isCalm(chunk) {
        return this.#calm[chunk] === 1;
    }

    /** Goes through the next chunk. @returns {Promise<boolean>} whether there was one */
    async next() {
        const number = this.done;
        if (number >= this.#chunks.count) return false;
        try {
            const messages = await this.#chunks.read(number, false);
            let isCalm = true;
            for (const message of messages) {
                const isTrouble = this.#chunks.at({ chunk: number, index: 0 }, () =>
                    this.#enter(message),
                );
                if (isTrouble) isCalm = false;
            }
            this.#calm[number] = Number(isCalm);
        } catch (thrown) {
            if (!(thrown instanceof RecordingError)) throw thrown;
            const { first, last } = this.#chunks.reader.chunks[number];
            this.#mark(this.#chunks.timeOf(first), MARK.damage);
            this.#mark(this.#chunks.timeOf(last), MARK.damage);
        }
        ++this.done;
        return true;
    }

    /** @param {Message} message @returns {boolean} whether it is to be looked at */
    #enter(message) {
        const topic = this.#chunks.topicOf(message);
        const time = this.#chunks.timeOf(message.time);
        if (topic === "frames") {
            this.#mark(time, MARK.frame);
            this.#await(jsonOf(message.data), time);
        }
        if (topic !== "tokens") return this.#enterTrouble(topic, message, time);
        const token = jsonOf(message.data);
        const { frame, attempt } = token;
        const name = `${frame} ${attempt}`;
        const begun = this.#open.get(name) ?? time;
        this.#open.delete(name);
        this.#measure(token, begun);
        return this.#enterTrouble(topic, message, begun);
    }

    /** @param {string | undefined} topic @param {Message} message @param {number} time */
    #enterTrouble(topic, { data }, time) {
        if (troubleOf(topic, data) === null) return false;
        const isLate = topic === "tokens" && jsonOf(data).outcome === "late";
        this.#mark(time, isLate ? MARK.late : MARK.error);
        return true;
    }

    /** @param {Record<string, any>} token @param {number} time */
    #measure(token, time) {
        const { outcome, clientSend } = token;
        if (outcome === "painted" && clientSend > 0) this.#latencies.add(time, token);
        else if (outcome === "late") this.#latencies.add(time, {});
    }

    /** @param {{frame: number, attempt: number}} mark @param {number} time */
    #await({ frame, attempt }, time) {
        this.#open.set(`${frame} ${attempt}`, time);
        if (this.#open.size <= MOST_OPEN) return;
        const [oldest] = this.#open.keys();
        this.#open.delete(oldest);
    }

    /** @param {number} time @param {number} mark */
    #mark(time, mark) {
        const stretch = Math.floor((time / (this.#duration || 1)) * STRETCHES);
        this.marks[Math.min(Math.max(stretch, 0), STRETCHES - 1)] |= mark;
    }
}

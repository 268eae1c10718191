// Frames from a recording, in the place of an engine.

import { decompress } from "fzstd";

import { VOCABULARY } from "../messages.mjs";
import { BEGINNING, Chunks } from "../recording/chunks.mjs";
import { jsonOf } from "../recording/following.mjs";
import { Player } from "../recording/player.mjs";
import { Reader } from "../recording/reader.mjs";
import { sourceOfAddress, sourceOfBlob } from "../recording/sources.mjs";
import { Survey } from "../recording/survey.mjs";
import { Latencies, MOST_RECORDED } from "./latencies.mjs";

/** @typedef {import("./frames.mjs").Frame} Frame */
/** @typedef {import("./live.mjs").Source} Source */
/** @typedef {import("../messages.mjs").PlayerWish} PlayerWish */
/** @typedef {import("../messages.mjs").ToMain} ToMain */

/**
 * @typedef {object} Surroundings
 * @property {(frame: Frame) => void} take each is answered
 * @property {(error: Error) => void} report
 * @property {(message: ToMain) => void} post to the main thread
 * @property {() => number} now microseconds since 1970
 * @property {() => Promise<string>} token what lets the page in where its files are; empty: none
 * @property {import("../messages.mjs").Beginning} [at] where it is opened
 */

const US_PER_MS = 1000;
const NS_PER_MS = 1_000_000n;
/** Milliseconds between two messages about the time line. */
const TELL_EVERY = 200;

/** @param {Uint8Array} packed @param {number} size */
const zstd = (packed, size) => decompress(packed, new Uint8Array(size));

/** @implements {Source} */
export class Replay {
    #surroundings;
    /** @type {Player | null} */
    #player = null;
    #isClosed = false;
    title = "";
    received = 0;
    latencies = new Latencies(MOST_RECORDED);

    /** @param {Blob | string} file or its address @param {Surroundings} surroundings */
    constructor(file, surroundings) {
        this.#surroundings = surroundings;
        this.#begin(file).catch((thrown) => {
            this.#state("closed", "this recording cannot be shown");
            surroundings.report(thrown);
        });
    }

    /** @param {PlayerWish} wish */
    do(wish) {
        const player = this.#player;
        if (!player) return;
        if (wish.do === "play") player.play(wish.speed);
        else if (wish.do === "stop") player.stop();
        else if (wish.do === "seek") player.seek(wish.time);
        else if (wish.do === "step") player.step(wish.by);
        else player.nextTrouble();
    }

    answer() {
        this.#player?.answered();
    }
    // A recording hears nothing, and has all that it can give.
    publish() {}
    reportError() {}
    askForAll() {}
    retry() {}
    close() {
        this.#isClosed = true;
        this.#player?.close();
    }

    /** @param {string} name @param {string} reason */
    #state(name, reason) {
        if (!this.#isClosed) this.#surroundings.post({ kind: "state", name, reason });
    }

    /** @param {Blob | string} file */
    async #begin(file) {
        this.#state("replay", "");
        const source = await (typeof file === "string"
            ? sourceOfAddress(file, this.#surroundings.token)
            : sourceOfBlob(file));
        const read = async (/** @type {number} */ offset, /** @type {number} */ length) => {
            this.received += length;
            return source.read(offset, length);
        };
        const reader = await Reader.open({ ...source, read }, { decompress: { zstd } });
        const { damage } = reader;
        if (damage) this.#surroundings.report(damage);
        const chunks = new Chunks(reader);
        await this.#readTitle(chunks);
        const time = await this.#timeAsked(chunks);
        if (this.#isClosed) return;
        this.#play(chunks, time);
    }

    /** Milliseconds since the beginning. @param {Chunks} chunks @returns {Promise<number>} */
    async #timeAsked(chunks) {
        const { at = { time: 0 }, report } = this.#surroundings;
        if ("time" in at) return at.time;
        const isIt = (/** @type {import("../recording/reader.mjs").Message} */ one) =>
            chunks.topicOf(one) === "frames" && jsonOf(one.data).frame === at.frame;
        const found = await chunks.search(BEGINNING, 1, isIt).catch(() => null);
        if (!found) report(new Error(`the recording has no frame ${at.frame}`));
        return found ? chunks.timeOf(found.message.time) : 0;
    }

    /** What the recording says of itself. @param {Chunks} chunks */
    async #readTitle(chunks) {
        if (chunks.count === 0) return;
        const first = await chunks
            .search(BEGINNING, 1, (one) => chunks.topicOf(one) === "connections")
            .catch(() => null);
        const { vocabulary, title = "" } = first ? jsonOf(first.message.data) : {};
        this.title = String(title);
        const known = (vocabulary ?? VOCABULARY) === VOCABULARY;
        const configuration = { vocabulary, title: this.title };
        if (!this.#isClosed) this.#surroundings.post({ kind: "hello", configuration, known });
        if (!known) throw new Error(`a recording of "${vocabulary}"`);
    }

    /** @param {Chunks} chunks @param {number} time where it is opened */
    #play(chunks, time) {
        const { take, report, post, now } = this.#surroundings;
        const player = new Player(chunks, {
            give: (frame) => {
                // What is measured is the page.
                take({ ...frame, token: { command: { cmd: "sendACT" }, received: now() } });
            },
            moved: (moment) => this.#isClosed || post({ kind: "moment", ...moment }),
            report,
            now: () => now() / US_PER_MS,
            after: (call, milliseconds) => {
                const timer = setTimeout(call, milliseconds);
                return () => clearTimeout(timer);
            },
        });
        const begin = Number(chunks.begin / NS_PER_MS);
        post({ kind: "recording", begin, duration: chunks.duration });
        this.#player = player;
        player.seek(time);
        void this.#survey(chunks, player);
    }

    /** @param {Chunks} chunks @param {Player} player */
    async #survey(chunks, player) {
        const survey = new Survey(chunks, this.latencies);
        player.isCalm = (chunk) => survey.isCalm(chunk);
        let told = -Infinity;
        const tell = () => {
            const { done, marks } = survey;
            const part = chunks.count > 0 ? done / chunks.count : 1;
            this.#surroundings.post({ kind: "survey", part, marks: marks.slice() });
            told = this.#surroundings.now();
        };
        // What somebody waits for comes first.
        await player.settled();
        while (!this.#isClosed && (await survey.next())) {
            if (this.#surroundings.now() - told >= TELL_EVERY * US_PER_MS) tell();
            await player.settled();
        }
        if (!this.#isClosed) tell();
    }
}

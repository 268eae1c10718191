// Frames from a recording, or from two of them, in the place of an engine.

import { decompress } from "fzstd";

import { VOCABULARY } from "../messages.mjs";
import { MOST_SIDES } from "../sides.mjs";
import { BEGINNING, Chunks, MOST_KEPT } from "../recording/chunks.mjs";
import { jsonOf } from "../recording/following.mjs";
import { Player } from "../recording/player.mjs";
import { Reader } from "../recording/reader.mjs";
import { sourceOf } from "../recording/sources.mjs";
import { Survey } from "../recording/survey.mjs";
import { NEAR, Track } from "../recording/track.mjs";
import { Latencies, MOST_RECORDED } from "./latencies.mjs";
import { MOST_REPLAYED } from "./scene.mjs";

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

/** What people call it. @param {Blob | string} file or its address */
function nameOf(file) {
    if (typeof file === "string") return decodeURIComponent(file.split("/").at(-1) ?? "");
    return "name" in file ? String(file.name) : "";
}

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

    /** @param {(Blob | string)[]} files or their addresses; the first one is on the left
     * @param {Surroundings} surroundings */
    constructor(files, surroundings) {
        this.#surroundings = surroundings;
        this.#begin(files).catch((thrown) => {
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

    /** @param {(Blob | string)[]} files */
    async #begin(files) {
        this.#state("replay", "");
        if (files.length > MOST_SIDES) {
            throw new RangeError(`at most ${MOST_SIDES} recordings can be shown at a time`);
        }
        const kept = MOST_KEPT / files.length;
        const opened = [];
        for (const file of files) {
            try {
                opened.push(await this.#open(file, kept));
            } catch (thrown) {
                if (files.length < 2) throw thrown;
                const { message } = /** @type {Error} */ (thrown);
                throw new Error(`${nameOf(file)}: ${message}`, { cause: thrown });
            }
        }
        const time = await this.#timeAsked(opened[0].chunks);
        if (this.#isClosed) return;
        this.title = [...new Set(opened.map(({ title }) => title))].join(" | ");
        const configuration = { vocabulary: VOCABULARY, title: this.title };
        this.#surroundings.post({ kind: "hello", configuration, known: true });
        this.#play(
            opened.map(({ chunks }) => chunks),
            files.map(nameOf),
            time,
        );
    }

    /** @param {Blob | string} file @param {number} kept bytes */
    async #open(file, kept) {
        const source = await sourceOf(file, this.#surroundings.token);
        const read = async (/** @type {number} */ offset, /** @type {number} */ length) => {
            this.received += length;
            return source.read(offset, length);
        };
        const reader = await Reader.open({ ...source, read }, { decompress: { zstd } });
        const { damage } = reader;
        if (damage) this.#surroundings.report(damage);
        const chunks = new Chunks(reader, kept);
        return { chunks, title: await this.#titleOf(chunks) };
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
    async #titleOf(chunks) {
        if (chunks.count === 0) return "";
        const first = await chunks
            .search(
                BEGINNING,
                1,
                (one) => chunks.topicOf(one) === "connections",
                (chunk) => chunk > 0,
            )
            .catch(() => null);
        const { vocabulary, title = "" } = first ? jsonOf(first.message.data) : {};
        if ((vocabulary ?? VOCABULARY) !== VOCABULARY) {
            throw new Error(`a recording of "${vocabulary}"`);
        }
        return String(title);
    }

    /** @param {Chunks[]} recordings @param {string[]} names @param {number} time where they are opened */
    #play(recordings, names, time) {
        const { take, report, post, now } = this.#surroundings;
        const [near, elements] = [NEAR, MOST_REPLAYED].map((most) => most / recordings.length);
        const tracks = recordings.map(
            (chunks, side) => new Track(chunks, { name: names[side], side, near, elements }),
        );
        const player = new Player(tracks, {
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
        const sides = recordings.map((chunks, side) => ({
            name: names[side],
            begin: Number(chunks.begin / NS_PER_MS),
            duration: chunks.duration,
        }));
        post({ kind: "recording", duration: player.duration, sides });
        this.#player = player;
        player.seek(time);
        void this.#survey(recordings, tracks, player);
    }

    /** @param {Chunks[]} recordings @param {Track[]} tracks @param {Player} player */
    async #survey(recordings, tracks, player) {
        // Of two, what the first one's frames took.
        const surveys = recordings.map(
            (chunks, side) =>
                new Survey(chunks, player.duration, side === 0 ? this.latencies : undefined),
        );
        tracks.forEach((track, side) => (track.isCalm = (chunk) => surveys[side].isCalm(chunk)));
        const count = recordings.reduce((sum, chunks) => sum + chunks.count, 0);
        let told = -Infinity;
        const tell = () => {
            const done = surveys.reduce((sum, survey) => sum + survey.done, 0);
            const marks = surveys.map((survey) => survey.marks.slice());
            this.#surroundings.post({ kind: "survey", part: count > 0 ? done / count : 1, marks });
            told = this.#surroundings.now();
        };
        // What somebody waits for comes first.
        await player.settled();
        for (const survey of surveys) {
            while (!this.#isClosed && (await survey.next())) {
                if (this.#surroundings.now() - told >= TELL_EVERY * US_PER_MS) tell();
                await player.settled();
            }
        }
        if (!this.#isClosed) tell();
    }
}

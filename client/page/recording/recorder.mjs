// Records what the page has, what it gets, and what becomes of it.

import { VOCABULARY } from "../messages.mjs";
import { stampsOf } from "../worker/frames.mjs";
import { CHANNELS } from "./channels.mjs";
import { Encoder, sizeOf } from "./format.mjs";
import { textOf } from "./json.mjs";
import { snapshotOf } from "./snapshot.mjs";
import { Writer } from "./writer.mjs";

/** @typedef {import("../worker/frames.mjs").Frame} Frame */
/** @typedef {import("../worker/scene.mjs").Scene} Scene */

/**
 * @typedef {object} Surroundings
 * @property {() => number} now microseconds since 1970
 * @property {number} most bytes of the file, but for its index
 * @property {(file: Blob, reason: string) => void} ended once; why, or empty: it was wanted
 */

/** How much has to be read, at most, from where everything is there: unless everything is more. */
const SNAPSHOT_PERIOD = 2e6;
const SNAPSHOT_BYTES = 16 * 1024 * 1024;

const MIB = 1024 * 1024;
/** Bytes of a message: what is larger would be in a chunk that readers refuse. */
const MOST_IN_ONE = 120 * MIB;
const NUMBERS = new Map(CHANNELS.map(({ topic }, i) => [topic, i + 1]));

/** @param {Record<string, any>} message */
function encoded(message) {
    return new TextEncoder().encode(textOf(message));
}

/** A block's identifier, from how commands name it. @param {string} name */
function identifierOf(name) {
    const [low, high] = name.split(" ").map(Number);
    return new Encoder().u32(low).u32(high).bytes;
}

export class Recorder {
    #surroundings;
    /** @type {Writer | null} null: it has ended */
    #writer = new Writer(CHANNELS);
    #time = 0n;
    #blocks = 0;
    /** Of the last command that is in the scene. */
    #sequence = 0;
    /** When everything was written last, and how large it was; what was written since. */
    #wholeTime = 0;
    #wholeBytes = 0;
    #bytesSince = 0;

    /** @param {Surroundings} surroundings */
    constructor(surroundings) {
        this.#surroundings = surroundings;
    }

    /** With what there is, before everything else. @param {string} title of the page
     * @param {Scene} scene @param {number} sequence of the last command in it; 0: there is none */
    begin(title, scene, sequence) {
        this.#sequence = sequence;
        this.connection({ event: "begin", vocabulary: VOCABULARY, title });
        if (sequence > 0) this.#attempt(() => this.#addSnapshot(scene, true));
    }

    /** Of the file, so far. */
    get bytes() {
        return this.#writer?.size ?? 0;
    }

    /** @param {Frame} frame whose commands were carried out @param {Scene} scene with them */
    frame(frame, scene) {
        this.#attempt(() => this.#addFrame(frame, scene));
    }

    /** A frame is over. @param {Frame} frame @param {string} outcome @param {number} sent when it
     * was answered, microseconds since 1970 */
    token(frame, outcome, sent) {
        const { number, attempt, error } = frame;
        const reason = outcome === "failed" ? (error?.message ?? "") : "";
        this.#addText("tokens", {
            frame: number,
            attempt,
            outcome,
            reason,
            ...stampsOf(frame, sent),
        });
    }
    /** @param {Record<string, any>} event that is published */
    control(event) {
        this.#addText("controls", event);
    }
    /** @param {string} error */
    error(error) {
        this.#addText("errors", { error });
    }
    /** @param {Record<string, any> & {event: "begin" | "new view" | "return" | "gone"}} event */
    connection(event) {
        this.#addText("connections", event);
    }

    /** @param {string} [reason] */
    end(reason = "") {
        const writer = this.#writer;
        this.#writer = null;
        if (!writer) return;
        let file;
        try {
            file = writer.end();
        } catch (thrown) {
            file = writer.whole;
            reason ||= String(thrown);
        }
        this.#surroundings.ended(file, reason);
    }

    /** What goes wrong here ends the recording, and costs no frame. @param {() => void} call */
    #attempt(call) {
        try {
            call();
        } catch (thrown) {
            this.end(String(thrown));
        }
    }

    /** @param {Frame} frame @param {Scene} scene */
    #addFrame({ number, attempt, isWhole, commands }, scene) {
        let bytes = 0;
        for (const [command, data] of commands) {
            if (data) bytes += this.#add("blocks", [identifierOf(command.data), data]);
            bytes += this.#add("commands", [encoded(command)]);
            this.#sequence = Number(command.seq);
        }
        // What came outside of all frames is not one.
        if (number >= 0) {
            const kind = isWhole ? "whole" : "changes";
            const mark = { frame: number, attempt, kind, bytes, seq: this.#sequence };
            this.#add("frames", [encoded(mark)]);
        }
        this.#bytesSince += bytes;
        if (isWhole) this.#hasAll(bytes);
        else if (number >= 0 && this.#isSnapshotDue()) this.#addSnapshot(scene, false);
    }

    #isSnapshotDue() {
        // Not before as much came as the last one takes: a file is about twice what has travelled,
        // and at most three times, where a scene grows.
        const isLate = this.#surroundings.now() - this.#wholeTime >= SNAPSHOT_PERIOD;
        const since = this.#bytesSince;
        return since >= this.#wholeBytes && (isLate || since >= SNAPSHOT_BYTES);
    }

    /** @param {Scene} scene @param {boolean} isNeeded what follows means nothing without it */
    #addSnapshot(scene, isNeeded) {
        const pieces = snapshotOf(scene, this.#sequence, () => ++this.#blocks);
        const bytes = sizeOf(pieces);
        this.#hasAll(bytes);
        if (isNeeded || bytes <= MOST_IN_ONE) this.#add("snapshots", pieces);
    }

    /** @param {number} bytes of all that there is */
    #hasAll(bytes) {
        this.#wholeTime = this.#surroundings.now();
        this.#wholeBytes = bytes;
        this.#bytesSince = 0;
    }

    /** @param {string} topic @param {Record<string, any>} message */
    #addText(topic, message) {
        this.#attempt(() => this.#add(topic, [encoded(message)]));
    }

    /** @param {string} topic @param {Uint8Array[]} data @returns {number} bytes */
    #add(topic, data) {
        if (!this.#writer) return 0;
        const { now, most } = this.#surroundings;
        const bytes = sizeOf(data);
        if (bytes > MOST_IN_ONE) {
            this.end(`of ${topic} one has more than ${MOST_IN_ONE / MIB} MiB`);
            return 0;
        }
        if (this.#writer.size + bytes > most) {
            this.end(`it has the ${most / MIB} MiB that it may have`);
            return 0;
        }
        // The order is that of the times, however fast messages come.
        const time = BigInt(now()) * 1000n;
        this.#time = time > this.#time ? time : this.#time + 1n;
        this.#writer.add(/** @type {number} */ (NUMBERS.get(topic)), this.#time, data);
        return bytes;
    }
}

// The messages of a recording, found by going through them.

/** @typedef {import("./reader.mjs").Message} Message */
/** @typedef {import("./reader.mjs").Reader} Reader */

/** Of a message: its chunk's number, and its own in it. @typedef {{chunk: number, index: number}} Place */

/** A chunk that is kept, and the bytes that it takes.
 * @typedef {{messages: Promise<Message[]>, cost: number}} Kept */

/** Bytes that are kept of what was read last. */
export const MOST_KEPT = 64 * 1024 * 1024;
/** Bytes that a message takes besides its own. */
const MESSAGE_COST = 300;
const NS_PER_MS = 1e6;

/** @type {Place} */
export const BEGINNING = { chunk: 0, index: 0 };

/** Whether one lies behind the other. @param {Place} one @param {Place} other */
export function isBehind(one, other) {
    return one.chunk > other.chunk || (one.chunk === other.chunk && one.index > other.index);
}
/** @param {Place} one @param {Place | null} other */
export function isSamePlace(one, other) {
    return one.chunk === other?.chunk && one.index === other.index;
}
/** @param {Place} place @param {1 | -1} step @returns {Place} which may lie outside the chunk */
export function nextTo({ chunk, index }, step) {
    return { chunk, index: index + step };
}

export class Chunks {
    #most;
    /** Those that were read last, by their numbers; the oldest first.
     * @type {Map<number, Kept>} */
    #kept = new Map();
    #bytes = 0;
    /** By channel. @type {Map<number, string>} */
    #topics;

    /** @param {Reader} reader @param {number} [most] bytes that are kept, or the last one */
    constructor(reader, most = MOST_KEPT) {
        this.reader = reader;
        this.#most = most;
        this.#topics = new Map([...reader.channels].map(([id, { topic }]) => [id, topic]));
        const times = reader.chunks.filter(({ last }) => last > 0n);
        /** Of the first message, nanoseconds since 1970. */
        this.begin = times[0]?.first ?? 0n;
        /** Milliseconds from there to the last message. */
        this.duration = Math.max(0, this.timeOf(times.at(-1)?.last ?? this.begin));
    }

    get count() {
        return this.reader.chunks.length;
    }
    /** @param {Message} message @returns {string | undefined} */
    topicOf({ channel }) {
        return this.#topics.get(channel);
    }
    /** @param {bigint} time @returns {number} milliseconds since the beginning */
    timeOf(time) {
        return Number(time - this.begin) / NS_PER_MS;
    }

    /** Rejected with a `RecordingError`. @param {number} number @param {boolean} [isKept]
     * @returns {Promise<Message[]>} whose data are the chunk's own memory: not to be changed */
    read(number, isKept = true) {
        const known = this.#kept.get(number);
        if (!isKept) return known?.messages ?? this.#load(number);
        const entry = known ?? { messages: this.#load(number), cost: 0 };
        // The newest is the last.
        this.#kept.delete(number);
        this.#kept.set(number, entry);
        if (!known) void this.#weigh(number, entry);
        return entry.messages;
    }

    /** @param {number} number */
    #load(number) {
        return this.reader.read(this.reader.chunks[number]);
    }

    /** @param {number} number @param {Kept} entry new */
    async #weigh(number, entry) {
        this.#cost(entry, this.reader.chunks[number].size);
        try {
            const { length } = await entry.messages;
            if (this.#kept.get(number) === entry) this.#cost(entry, MESSAGE_COST * length);
        } catch {
            // It may be that it could not be had, and can be later.
            this.#forget(number, entry);
        }
    }

    /** @param {Kept} entry @param {number} bytes that it takes more */
    #cost(entry, bytes) {
        entry.cost += bytes;
        this.#bytes += bytes;
        for (const [number, oldest] of this.#kept) {
            if (this.#bytes <= this.#most || this.#kept.size === 1) break;
            this.#forget(number, oldest);
        }
    }

    /** @param {number} number @param {Kept} entry */
    #forget(number, entry) {
        if (this.#kept.get(number) === entry) this.#kept.delete(number);
        this.#bytes -= entry.cost;
        entry.cost = 0;
    }

    /** The first message from a place on, in this direction, that is wanted; null: there is none.
     * Rejected with a `RecordingError` where a chunk is damaged on the way.
     * @param {Place} from @param {1 | -1} step
     * @param {(message: Message, place: Place) => boolean} isWanted
     * @param {(chunk: number) => boolean} [isSkipped] it is known that there is none in it
     * @returns {Promise<(Place & {message: Message}) | null>} */
    async search(from, step, isWanted, isSkipped = () => false) {
        for (let chunk = from.chunk; chunk >= 0 && chunk < this.count; chunk += step) {
            if (isSkipped(chunk)) continue;
            const messages = await this.read(chunk);
            const last = messages.length - 1;
            const isFirst = chunk === from.chunk;
            let index = step > 0 ? 0 : last;
            if (isFirst) index = step > 0 ? from.index : Math.min(from.index, last);
            for (; index >= 0 && index <= last; index += step) {
                const message = messages[index];
                if (isWanted(message, { chunk, index })) return { chunk, index, message };
            }
        }
        return null;
    }

    /** What is read out of a chunk's messages. What cannot be is an error at its offset.
     * @template T @param {Place} place @param {() => T} call @returns {T} */
    at({ chunk }, call) {
        try {
            return call();
        } catch (thrown) {
            throw this.reader.errorAt(chunk, thrown);
        }
    }
}

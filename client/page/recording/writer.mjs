// Writes a recording into memory that the browser may put on disk.

import { Encoder, MAGIC, OP, PROFILE, crcOf } from "./format.mjs";

/** @typedef {{topic: string, encoding: string, schema: string}} Channel schema: JSON Schema */

/** What the summary says of a chunk. @typedef {object} ChunkInfo
 * @property {bigint} first time, nanoseconds since 1970
 * @property {bigint} last
 * @property {number} offset of its record
 * @property {number} length
 * @property {Map<number, number>} indexes offsets of its message indexes, by channel
 * @property {number} indexLength
 * @property {number} size of its records */

const CHUNK_SIZE = 1024 * 1024;
const U16 = 2;
const U64 = 8;
/** Bytes of a chunk's fields, without a compression's name, and of the footer's. */
const CHUNK_HEAD = 40;
const FOOTER_CONTENT = 20;

/** @param {Encoder} out @param {Channel} channel @param {number} id */
function putSchema(out, { topic, schema }, id) {
    out.record(OP.schema, () => out.u16(id).text(topic).text("jsonschema").text(schema));
}
/** @param {Encoder} out @param {Channel} channel @param {number} id */
function putChannel(out, { topic, encoding }, id) {
    const NO_METADATA = 0;
    out.record(OP.channel, () => out.u16(id).u16(id).text(topic).text(encoding).u32(NO_METADATA));
}

export class Writer {
    #channels;
    #chunkSize;
    /** The file so far. @type {Blob[]} */
    #parts = [];
    #offset = 0;
    /** @type {ChunkInfo[]} */
    #chunks = [];
    /** How many messages each channel has. @type {number[]} */
    #counts;
    /** The records of the chunk that is not full. */
    #records = new Encoder();
    /** Times and offsets of its messages, by channel. @type {Map<number, [bigint, number][]>} */
    #index = new Map();
    /** Of its first and its last message. */
    #times = [0n, 0n];

    /** @param {Channel[]} channels with the numbers 1, 2, ... @param {number} [chunkSize] bytes */
    constructor(channels, chunkSize = CHUNK_SIZE) {
        this.#channels = channels;
        this.#chunkSize = chunkSize;
        this.#counts = channels.map(() => 0);
        const head = new Encoder().raw(MAGIC);
        head.record(OP.header, () => head.text(PROFILE).text("kiroweb page"));
        this.#put(head.bytes);
        this.#define(this.#records);
    }

    /** Bytes, as far as they are known. */
    get size() {
        return this.#offset + this.#records.length;
    }

    /** @param {number} channel @param {bigint} time later than that of the message before
     * @param {Uint8Array[]} data pieces, which are copied */
    add(channel, time, data) {
        const size = data.reduce((sum, { length }) => sum + length, 0);
        // A large one has its own, so that no chunk is much larger than what is in it.
        if (this.#index.size > 0 && this.#records.length + size > this.#chunkSize) this.#flush();
        const at = this.#records.length;
        const sequence = this.#counts[channel - 1];
        try {
            this.#records.record(OP.message, (out) => {
                out.u16(channel).u32(sequence).u64(time).u64(time);
                for (const piece of data) out.raw(piece);
            });
        } catch (thrown) {
            // Without memory for it, the file stays good without it.
            this.#records.length = at;
            throw thrown;
        }
        this.#counts[channel - 1] = sequence + 1;
        this.#times = [this.#index.size > 0 ? this.#times[0] : time, time];
        const index = this.#index.get(channel) ?? [];
        this.#index.set(channel, index);
        index.push([time, at]);
        if (this.#records.length >= this.#chunkSize) this.#flush();
    }

    /** Ends the file. @returns {Blob} REQUIRES: nothing is added behind it */
    end() {
        this.#flush();
        const end = new Encoder();
        const NO_CRC = 0;
        end.record(OP.dataEnd, () => end.u32(NO_CRC));
        this.#put(end.bytes);
        this.#put(this.#summary());
        return new Blob(this.#parts, { type: "application/octet-stream" });
    }

    /** What is in whole chunks, without an end: where memory for that is missing. */
    get whole() {
        return new Blob(this.#parts, { type: "application/octet-stream" });
    }

    /** All of them, or none. @param {Uint8Array[]} pieces */
    #put(...pieces) {
        const parts = pieces.map((bytes) => new Blob([/** @type {any} */ (bytes)]));
        this.#parts.push(...parts);
        for (const { length } of pieces) this.#offset += length;
    }

    /** @param {Encoder} out gets all schemas and channels */
    #define(out) {
        this.#channels.forEach((channel, i) => {
            putSchema(out, channel, i + 1);
            putChannel(out, channel, i + 1);
        });
    }

    #flush() {
        const { bytes } = this.#records;
        if (bytes.length === 0) return;
        const size = bytes.length;
        const [first, last] = this.#times;
        const offset = this.#offset;
        const head = new Encoder().u8(OP.chunk).u64(CHUNK_HEAD + size);
        head.u64(first).u64(last).u64(size).u32(crcOf(bytes)).text("").u64(size);
        const length = head.length + size;
        const [indexes, index] = this.#indexesAt(offset + length);
        this.#put(head.bytes, bytes, index);
        const indexLength = index.length;
        this.#chunks.push({ first, last, offset, length, indexes, indexLength, size });
        this.#records.clear(2 * this.#chunkSize);
        this.#index.clear();
        this.#times = [0n, 0n];
    }

    /** @param {number} begin @returns {[Map<number, number>, Uint8Array]} where that of each channel
     * is, and they */
    #indexesAt(begin) {
        const out = new Encoder();
        const offsets = new Map();
        for (const [channel, index] of this.#index) {
            offsets.set(channel, begin + out.length);
            out.record(OP.messageIndex, () => {
                out.u16(channel).u32(2 * U64 * index.length);
                for (const [time, offset] of index) out.u64(time).u64(offset);
            });
        }
        return [offsets, out.bytes];
    }

    #summary() {
        const out = new Encoder();
        const offsets = new Encoder();
        const group = (/** @type {number} */ opcode, /** @type {() => void} */ write) => {
            const begin = out.length;
            write();
            const length = out.length - begin;
            offsets.record(OP.summaryOffset, () =>
                offsets
                    .u8(opcode)
                    .u64(this.#offset + begin)
                    .u64(length),
            );
        };
        group(OP.schema, () => this.#channels.forEach((one, i) => putSchema(out, one, i + 1)));
        group(OP.channel, () => this.#channels.forEach((one, i) => putChannel(out, one, i + 1)));
        group(OP.statistics, () => this.#putStatistics(out));
        group(OP.chunkIndex, () => this.#chunks.forEach((chunk) => putInfo(out, chunk)));
        const offsetsBegin = this.#offset + out.length;
        out.raw(offsets.bytes);
        out.u8(OP.footer).u64(FOOTER_CONTENT).u64(this.#offset).u64(offsetsBegin);
        return out.u32(crcOf(out.bytes)).raw(MAGIC).bytes;
    }

    /** @param {Encoder} out */
    #putStatistics(out) {
        const counts = [...this.#counts.entries()].filter(([, count]) => count > 0);
        const all = counts.reduce((sum, [, count]) => sum + count, 0);
        const withMessages = this.#chunks.filter(({ indexes }) => indexes.size > 0);
        const numChannels = this.#channels.length;
        out.record(OP.statistics, () => {
            out.u64(all).u16(numChannels).u32(numChannels);
            // Neither attachments nor metadata.
            out.u32(0).u32(0).u32(this.#chunks.length);
            out.u64(withMessages[0]?.first ?? 0).u64(withMessages.at(-1)?.last ?? 0);
            out.u32((U16 + U64) * counts.length);
            for (const [i, count] of counts) out.u16(i + 1).u64(count);
        });
    }
}

/** @param {Encoder} out @param {ChunkInfo} chunk */
function putInfo(out, { first, last, offset, length, indexes, indexLength, size }) {
    out.record(OP.chunkIndex, () => {
        out.u64(first).u64(last).u64(offset).u64(length);
        out.u32((U16 + U64) * indexes.size);
        for (const [channel, at] of indexes) out.u16(channel).u64(at);
        out.u64(indexLength).text("").u64(size).u64(size);
    });
}

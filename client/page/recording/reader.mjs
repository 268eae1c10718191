// Reads a recording, whatever its state: what is handed on has been checked, and what is damaged says
// where.

import { Decoder, MAGIC, OP, PROFILE, RECORD_HEAD, crcOf } from "./format.mjs";

/**
 * @typedef {object} Source
 * @property {number} size bytes
 * @property {(offset: number, length: number) => Promise<Uint8Array>} read so many, if they are there
 */

/** @typedef {{channel: number, sequence: number, time: bigint, data: Uint8Array}} Message time:
 * nanoseconds since 1970 */
/** @typedef {{topic: string, encoding: string, schema: number}} Channel */

/** @typedef {object} ChunkInfo
 * @property {bigint} first time
 * @property {bigint} last
 * @property {number} offset of its record
 * @property {number} length
 * @property {number} size of its records
 * @property {string} compression
 * @property {number} compressedSize
 * @property {Set<number>} channels of its messages */

/** @typedef {{chunk: number, index: number, chunks: number, messages: number}} Limits bytes of a chunk,
 * compressed and again uncompressed, and of the index; how many chunks, and messages in one */

/** Makes so many bytes of others. Throws, or gives something else, where they are not those.
 * @typedef {(bytes: Uint8Array, size: number) => Uint8Array} Decompress */

const MIB = 1024 * 1024;
/** @type {Limits} */
const LIMITS = { chunk: 128 * MIB, index: 64 * MIB, chunks: MIB, messages: MIB / 4 };
const MOST_HEADER = 64 * 1024;
/** Of a chunk's record, up to its compression; and what that may be called, with what follows. */
const CHUNK_HEAD = RECORD_HEAD + 32;
const MOST_COMPRESSION = 32 + 8;
const FOOTER = RECORD_HEAD + 20;
/** Records that no checksum is over where they stand between chunks. */
const UNCHECKED = [0, OP.header, OP.footer, OP.schema, OP.channel, OP.message];

/** What a recording has where it is not as it should be. */
export class RecordingError extends Error {
    /** @param {number} offset bytes from the file's beginning @param {string} what */
    constructor(offset, what) {
        super(`offset ${offset}: ${what}`);
        this.offset = offset;
    }
}

/** What goes wrong while something is taken apart lies at this offset.
 * @template T @param {number} offset @param {() => T} call @returns {T} */
function at(offset, call) {
    try {
        return call();
    } catch (thrown) {
        if (!(thrown instanceof RangeError)) throw thrown;
        throw new RecordingError(offset, thrown.message);
    }
}

/** @param {Decoder} content @returns {Message} */
function messageOf(content) {
    const channel = content.u16();
    const sequence = content.u32();
    const time = content.u64();
    content.u64(); // Published: the same.
    return { channel, sequence, time, data: content.raw() };
}

/** @param {Decoder} content @returns {ChunkInfo} */
function infoOf(content) {
    const [first, last] = [content.u64(), content.u64()];
    const [offset, length] = [content.size(), content.size()];
    const indexes = new Decoder(content.raw(content.u32()));
    /** @type {Set<number>} */
    const channels = new Set();
    while (!indexes.isAtEnd) {
        channels.add(indexes.u16());
        indexes.u64();
    }
    content.u64();
    const compression = content.text();
    const [compressedSize, size] = [content.size(), content.size()];
    return { first, last, offset, length, size, compression, compressedSize, channels };
}

/** @param {string} what @param {number} said its checksum; 0 stands for none, and what nobody can
 * check is not shown */
function mismatch(what, said) {
    return said === 0 ? `the ${what} has no checksum` : `the ${what}'s checksum is wrong`;
}

/** @param {ChunkInfo} one @param {ChunkInfo} other */
function isSame(one, other) {
    /** @type {(keyof ChunkInfo)[]} */
    const names = ["first", "last", "size", "compression", "compressedSize"];
    return names.every((name) => one[name] === other[name]);
}

export class Reader {
    #source;
    #decompress;
    #limits;
    /** Where the header ends. */
    #begin = 0;
    /** Bytes of schemas and channels. */
    #defined = 0;
    /** The next of each channel, while the file is gone through. @type {Map<number, number>} */
    #sequences = new Map();

    /** By their numbers. @type {Map<number, Channel>} */
    channels = new Map();
    /** JSON Schema, by their numbers. @type {Map<number, string>} */
    schemas = new Map();
    /** In the order of the file, which is that of the times. @type {ChunkInfo[]} */
    chunks = [];
    /** Why there is not all of it, or no index; null: it is as it was closed.
     * @type {RecordingError | null} */
    damage = null;

    /** Rejected with a `RecordingError` for what is no recording.
     * @param {Source} source
     * @param {{decompress?: Record<string, Decompress>, limits?: Partial<Limits>}} [options]
     *   decompress: by the compression's name @returns {Promise<Reader>} */
    static async open(source, options = {}) {
        const reader = new Reader(source, options);
        await reader.#open();
        return reader;
    }

    /** For `open`. @param {Source} source
     * @param {{decompress?: Record<string, Decompress>, limits?: Partial<Limits>}} options */
    constructor(source, { decompress = {}, limits = {} }) {
        this.#source = source;
        this.#decompress = decompress;
        this.#limits = { ...LIMITS, ...limits };
    }

    /** The number of a channel. @param {string} topic @returns {number | undefined} */
    find(topic) {
        return [...this.channels].find(([, channel]) => channel.topic === topic)?.[0];
    }

    /** The messages of a chunk, all of which have been checked. Rejected with a `RecordingError`.
     * @param {ChunkInfo} info one of `chunks` @returns {Promise<Message[]>} in their order; the data
     *   lie in one piece of memory */
    async read(info) {
        const records = await this.#records(info);
        return at(info.offset, () => this.#messages(records, info));
    }

    /** What is wrong with a message's content, as an error at its chunk. @param {number} chunk its
     * number @param {unknown} thrown */
    errorAt(chunk, thrown) {
        if (thrown instanceof RecordingError) return thrown;
        const what = thrown instanceof Error ? thrown.message : String(thrown);
        return new RecordingError(this.chunks[chunk].offset, what);
    }

    async #open() {
        await this.#readHeader();
        if (await this.#readIndex()) return;
        // What was read of the index may be wrong.
        for (const known of [this.channels, this.schemas]) known.clear();
        this.chunks = [];
        this.#defined = 0;
        await this.#scan();
    }

    /** @param {number} offset @param {number} length */
    async #bytes(offset, length) {
        const bytes = await this.#source.read(offset, length);
        if (bytes.length !== length) throw new RecordingError(offset, "the file ends too early");
        return bytes;
    }

    async #readHeader() {
        const bytes = await this.#bytes(0, Math.min(this.#source.size, MOST_HEADER));
        if (!MAGIC.every((byte, i) => bytes[i] === byte)) {
            throw new RecordingError(0, "this is no recording");
        }
        at(MAGIC.length, () => {
            const rest = new Decoder(bytes);
            rest.raw(MAGIC.length);
            const { opcode, content } = rest.record();
            if (opcode !== OP.header) throw new RangeError("a recording begins with its header");
            const profile = content.text();
            if (profile !== PROFILE) throw new RangeError(`this is a recording of "${profile}"`);
            content.text();
            this.#begin = rest.at;
        });
    }

    /** Whether there is one. What is wrong with it becomes the damage. */
    async #readIndex() {
        const { size } = this.#source;
        const footer = size - MAGIC.length - FOOTER;
        if (footer < this.#begin) return false;
        const end = await this.#bytes(footer, size - footer);
        if (!MAGIC.every((byte, i) => end[FOOTER + i] === byte)) return false;
        try {
            const begin = at(footer, () => this.#beginOfIndex(new Decoder(end), footer));
            const summary = await this.#bytes(begin, footer - begin);
            at(begin, () => {
                const crc = crcOf(end.subarray(0, FOOTER - 4), crcOf(summary));
                const said = new Decoder(end.subarray(FOOTER - 4)).u32();
                if (crc !== said) throw new RangeError(mismatch("index", said));
                this.#readSummary(new Decoder(summary));
            });
            return true;
        } catch (thrown) {
            if (!(thrown instanceof RecordingError)) throw thrown;
            this.damage = thrown;
            return false;
        }
    }

    /** @param {Decoder} end @param {number} footer its offset */
    #beginOfIndex(end, footer) {
        const { opcode, content } = end.record();
        const begin = opcode === OP.footer ? content.size() : 0;
        if (begin < this.#begin || begin > footer) throw new RangeError("the footer is damaged");
        if (footer - begin > this.#limits.index) throw new RangeError("the index is too large");
        return begin;
    }

    /** @param {Decoder} summary */
    #readSummary(summary) {
        while (!summary.isAtEnd) {
            const { opcode, content } = summary.record();
            this.#define(opcode, content);
            if (opcode === OP.chunkIndex) this.#enter(infoOf(content));
        }
        this.chunks.sort((a, b) => a.offset - b.offset);
        this.chunks.forEach(({ offset }, i) => {
            const before = this.chunks[i - 1];
            if (before && offset < before.offset + before.length) {
                throw new RangeError("the index names chunks that lie in each other");
            }
        });
    }

    /** @param {ChunkInfo} info */
    #enter(info) {
        const { offset, length } = info;
        if (this.chunks.length === this.#limits.chunks) throw new RangeError("too many chunks");
        if (offset < this.#begin || offset + length > this.#source.size || length < CHUNK_HEAD) {
            throw new RangeError("the index names a chunk that is not there");
        }
        this.chunks.push(info);
    }

    /** @param {number} opcode @param {Decoder} content of a schema or a channel; else nothing */
    #define(opcode, content) {
        if (opcode !== OP.schema && opcode !== OP.channel) return;
        const id = content.u16();
        const known = opcode === OP.schema ? this.schemas : this.channels;
        // Repeated ones are the same.
        if (known.has(id)) return;
        const begin = content.at;
        if (opcode === OP.schema) {
            content.text();
            content.text();
            this.schemas.set(id, content.text());
        } else {
            const schema = content.u16();
            if (schema !== 0 && !this.schemas.has(schema)) throw new RangeError("no such schema");
            this.channels.set(id, { topic: content.text(), encoding: content.text(), schema });
        }
        this.#defined += content.at - begin;
        if (this.#defined > this.#limits.index) throw new RangeError("too much about channels");
    }

    /** Goes through the file, up to where it is damaged. */
    async #scan() {
        /** @type {number | null} */
        let offset = this.#begin;
        try {
            while (offset !== null) offset = await this.#scanRecord(offset);
        } catch (thrown) {
            if (!(thrown instanceof RecordingError)) throw thrown;
            // What comes first in the file is the reason for what comes later.
            this.damage = thrown;
        }
    }

    /** @param {number} offset @returns {Promise<number | null>} of the next one; null: the data end */
    async #scanRecord(offset) {
        const left = this.#source.size - offset;
        if (left < RECORD_HEAD) throw new RecordingError(offset, "the file ends before its time");
        const head = new Decoder(await this.#bytes(offset, RECORD_HEAD));
        const opcode = head.u8();
        const length = RECORD_HEAD + at(offset, () => head.size());
        if (length > left) throw new RecordingError(offset, "the file ends within a record");
        if (opcode === OP.chunk) {
            await this.#scanChunk(offset, length);
        } else if (opcode === OP.dataEnd) {
            // What follows is the index, which was not good.
            this.damage ??= new RecordingError(offset, "there is no index");
            return null;
        } else if (UNCHECKED.includes(opcode)) {
            throw new RecordingError(offset, "a record stands where it cannot be checked");
        }
        return offset + length;
    }

    /** @param {number} offset @param {number} length */
    async #scanChunk(offset, length) {
        const { info } = await this.#headOf(offset, length);
        const records = await this.#records(info);
        at(offset, () => {
            for (const rest = new Decoder(records); !rest.isAtEnd;) {
                const { opcode, content } = rest.record();
                this.#define(opcode, content);
            }
            for (const { channel, sequence } of this.#messages(records, info)) {
                const expected = this.#sequences.get(channel) ?? 0;
                if (sequence !== expected) throw new RangeError("messages are missing before this");
                this.#sequences.set(channel, expected + 1);
                info.channels.add(channel);
            }
            this.#enter(info);
        });
    }

    /** What stands before a chunk's records. @param {number} offset @param {number} length
     * @returns {Promise<{info: ChunkInfo, crc: number, begin: number}>} begin: of its records */
    async #headOf(offset, length) {
        const most = Math.min(length, CHUNK_HEAD + MOST_COMPRESSION);
        const bytes = await this.#bytes(offset, most);
        return at(offset, () => {
            const head = new Decoder(bytes);
            if (head.u8() !== OP.chunk) throw new RangeError("no chunk is there");
            const isLength = head.size() + RECORD_HEAD === length;
            const [first, last, size, crc] = [head.u64(), head.u64(), head.size(), head.u32()];
            const compression = head.text();
            const compressedSize = head.size();
            if (!isLength || head.at + compressedSize !== length) {
                throw new RangeError("the chunk's length is not that of its records");
            }
            const sizes = { offset, length, size, compressedSize };
            const info = { first, last, ...sizes, compression, channels: new Set() };
            return { info, crc, begin: offset + head.at };
        });
    }

    /** @param {ChunkInfo} info @returns {Promise<Uint8Array>} its records */
    async #records(info) {
        const { offset, length, size, compressedSize } = info;
        const { info: found, crc, begin } = await this.#headOf(offset, length);
        at(offset, () => {
            if (!isSame(found, info)) throw new RangeError("the chunk is not as the index says");
            const { chunk: most } = this.#limits;
            if (Math.max(size, compressedSize) > most) {
                throw new RangeError(`the chunk is larger than ${most} bytes`);
            }
        });
        const packed = await this.#bytes(begin, compressedSize);
        const records = this.#unpack(packed, info);
        if (records.length !== size || crcOf(records) !== crc) {
            throw new RecordingError(offset, mismatch("chunk", crc));
        }
        return records;
    }

    /** @param {Uint8Array} packed @param {ChunkInfo} info */
    #unpack(packed, { offset, compression, size }) {
        if (compression === "") return packed;
        const decompress = Object.hasOwn(this.#decompress, compression)
            ? this.#decompress[compression]
            : null;
        if (!decompress) throw new RecordingError(offset, "the chunk's compression is not known");
        try {
            return decompress(packed, size);
        } catch (thrown) {
            throw new RecordingError(offset, `the chunk cannot be decompressed: ${thrown}`);
        }
    }

    /** @param {Uint8Array} records @param {ChunkInfo} info @returns {Message[]} */
    #messages(records, { first, last }) {
        const messages = [];
        for (const rest = new Decoder(records); !rest.isAtEnd;) {
            const { opcode, content } = rest.record();
            if (opcode !== OP.message) continue;
            const message = messageOf(content);
            const { time, channel } = message;
            if (time < first || time > last || !this.channels.has(channel)) {
                throw new RangeError("a message does not fit its chunk");
            }
            // Each takes more memory than it has bytes.
            if (messages.length === this.#limits.messages) {
                throw new RangeError("too many messages");
            }
            messages.push(message);
        }
        return messages;
    }
}

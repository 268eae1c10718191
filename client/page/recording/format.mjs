// The container of recordings, MCAP: its numbers, and how they are written and read.

export const MAGIC = Uint8Array.of(0x89, 0x4d, 0x43, 0x41, 0x50, 0x30, 0x0d, 0x0a);
export const PROFILE = "kiroweb";

export const OP = {
    header: 0x01,
    footer: 0x02,
    schema: 0x03,
    channel: 0x04,
    message: 0x05,
    chunk: 0x06,
    messageIndex: 0x07,
    chunkIndex: 0x08,
    statistics: 0x0b,
    summaryOffset: 0x0e,
    dataEnd: 0x0f,
};

/** Bytes of a record's opcode and of the length of its content. */
export const RECORD_HEAD = 9;

const BITS = 8;
const LOW_BYTE = 0xff;
const POLYNOMIAL = 0xedb88320;
const CRC_TABLE = Int32Array.from({ length: LOW_BYTE + 1 }, (_, byte) => {
    for (let bit = 0; bit < BITS; ++bit) byte = (byte >>> 1) ^ (byte & 1 && POLYNOMIAL);
    return byte;
});

/** CRC-32, of bytes behind those that gave `crc`. @param {Uint8Array} bytes @param {number} [crc] */
export function crcOf(bytes, crc = 0) {
    let rest = ~crc;
    for (let i = 0; i < bytes.length; ++i) {
        rest = (rest >>> BITS) ^ CRC_TABLE[(rest ^ bytes[i]) & LOW_BYTE];
    }
    return ~rest >>> 0;
}

/** @param {Uint8Array[]} pieces @returns {number} bytes */
export const sizeOf = (pieces) => pieces.reduce((sum, { length }) => sum + length, 0);

const SMALLEST = 64;

/** Numbers and texts behind one another, little-endian. */
export class Encoder {
    #bytes = new Uint8Array();
    #view = new DataView(this.#bytes.buffer);
    length = 0;

    /** What was written, as long as nothing else is. */
    get bytes() {
        return this.#bytes.subarray(0, this.length);
    }
    /** Its room is kept, unless it is more than that. @param {number} most bytes */
    clear(most) {
        this.length = 0;
        if (this.#bytes.length > most) this.#take(new Uint8Array());
    }

    /** @param {number} value */
    u8(value) {
        const at = this.#grow(1);
        this.#view.setUint8(at, value);
        return this;
    }
    /** @param {number} value */
    u16(value) {
        const at = this.#grow(2);
        this.#view.setUint16(at, value, true);
        return this;
    }
    /** @param {number} value */
    u32(value) {
        const at = this.#grow(4);
        this.#view.setUint32(at, value, true);
        return this;
    }
    /** @param {number | bigint} value */
    u64(value) {
        const at = this.#grow(8);
        this.#view.setBigUint64(at, BigInt(value), true);
        return this;
    }
    /** @param {Uint8Array} bytes */
    raw(bytes) {
        const at = this.#grow(bytes.length);
        this.#bytes.set(bytes, at);
        return this;
    }
    /** With its length. @param {string} text */
    text(text) {
        const bytes = new TextEncoder().encode(text);
        return this.u32(bytes.length).raw(bytes);
    }
    /** @param {number} opcode @param {(record: Encoder) => void} write its content */
    record(opcode, write) {
        const at = this.u8(opcode).length;
        this.u64(0);
        write(this);
        this.#view.setBigUint64(at, BigInt(this.length - at - 8), true);
        return this;
    }

    /** @param {number} size @returns {number} where so many bytes more have room */
    #grow(size) {
        const at = this.length;
        const end = at + size;
        if (end > this.#bytes.length) {
            const larger = new Uint8Array(Math.max(SMALLEST, end, 2 * this.#bytes.length));
            larger.set(this.#bytes.subarray(0, at));
            this.#take(larger);
        }
        this.length = end;
        return at;
    }
    /** @param {Uint8Array<ArrayBuffer>} bytes */
    #take(bytes) {
        this.#bytes = bytes;
        this.#view = new DataView(bytes.buffer);
    }
}

/** Takes apart what an `Encoder` makes. Throws a RangeError for what is not there. */
export class Decoder {
    #bytes;
    #view;
    at = 0;

    /** @param {Uint8Array} bytes */
    constructor(bytes) {
        this.#bytes = bytes;
        this.#view = new DataView(bytes.buffer, bytes.byteOffset, bytes.length);
    }

    get isAtEnd() {
        return this.at === this.#bytes.length;
    }
    u8() {
        return this.#view.getUint8(this.#skip(1));
    }
    u16() {
        return this.#view.getUint16(this.#skip(2), true);
    }
    u32() {
        return this.#view.getUint32(this.#skip(4), true);
    }
    u64() {
        return this.#view.getBigUint64(this.#skip(8), true);
    }
    /** One that may be a size or an offset. */
    size() {
        const value = Number(this.u64());
        if (!Number.isSafeInteger(value)) throw new RangeError("a length is beyond all files");
        return value;
    }
    /** @param {number} [size] all that is left */
    raw(size = this.#bytes.length - this.at) {
        const at = this.#skip(size);
        return this.#bytes.subarray(at, at + size);
    }
    text() {
        return new TextDecoder().decode(this.raw(this.u32()));
    }
    /** @returns {{opcode: number, content: Decoder}} */
    record() {
        const opcode = this.u8();
        return { opcode, content: new Decoder(this.raw(this.size())) };
    }

    /** @param {number} size */
    #skip(size) {
        const { at } = this;
        if (size > this.#bytes.length - at) throw new RangeError("a record ends before its time");
        this.at += size;
        return at;
    }
}

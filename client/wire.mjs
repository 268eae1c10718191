// Bytes and texts of the wire `kiroweb.v1`: what comes in, taken apart. No state.

const RECORD = "\x1e";
const UNIT = "\x1f";
const UNIT_CODE = 0x1f;
const BLOCK_KIND = 1;
const LAST_PIECE = 1;
/** Bytes before a block in its frame. */
export const HEADER = 16;
// Stands for not-a-number in strict JSON. Chance makes sure that no text says the same.
const NOT_A_NUMBER = `NaN ${Math.random()} ${Math.random()}`;
const STRING_OR_BARE_WORD = /"(?:[^"\\]|\\.)*"|\bNaN\b|\bInfinity\b/g;

/** Reads a JSON text in which not-a-number and infinities may stand as bare words.
 * @param {string} text @returns {any} */
export function readJson(text) {
    try {
        return JSON.parse(text);
    } catch (error) {
        if (!/NaN|Infinity/.test(text)) throw error;
        const strict = text.replace(STRING_OR_BARE_WORD, (found) => {
            if (found === "NaN") return `"${NOT_A_NUMBER}"`;
            return found === "Infinity" ? "1e999" : found;
        });
        return JSON.parse(strict, (_, value) => (value === NOT_A_NUMBER ? NaN : value));
    }
}

/** The bytes that a Base64 text stands for. Throws for a text that is none.
 * @param {string} text @returns {Uint8Array} */
export function fromBase64(text) {
    const characters = atob(text);
    const bytes = new Uint8Array(characters.length);
    for (let i = 0; i < characters.length; ++i) bytes[i] = characters.charCodeAt(i);
    return bytes;
}

/** Calls `handle` for each record of a batch, in order. What is not valid UTF-8 has replacement
 * characters. Throws a TypeError where the batch cannot be read; what came before has been handled.
 * @param {string} frame
 * @param {(number: number, channel: string, text: string) => void} handle */
export function readBatch(frame, handle) {
    // Searched, not split: at hundreds of thousands of records a second an array of them costs more
    // than they do.
    let begin = frame.indexOf(RECORD);
    let number = Number(begin < 0 ? frame : frame.slice(0, begin));
    if (!Number.isSafeInteger(number)) throw new TypeError("a batch without a number");
    let channel = "";
    while (begin >= 0) {
        const next = frame.indexOf(RECORD, begin + 1);
        const end = next < 0 ? frame.length : next;
        const unit = frame.indexOf(UNIT, begin + 1);
        if (unit < 0 || unit >= end) throw new TypeError(`record ${number} has no text`);
        if (unit > begin + 1) channel = frame.slice(begin + 1, unit);
        const encoded = unit + 1 < end && frame.charCodeAt(unit + 1) === UNIT_CODE;
        const text = encoded
            ? new TextDecoder().decode(fromBase64(frame.slice(unit + 2, end)))
            : frame.slice(unit + 1, end);
        handle(number++, channel, text);
        begin = next;
    }
}

/**
 * @typedef {object} Piece
 * @property {boolean} last
 * @property {number} channel  its number
 * @property {number} transfer
 * @property {number} number   of the message if this is the last piece, else the block's size
 * @property {Uint8Array} data  shares the frame's memory
 */

/** A block or a piece of one; null for a frame of a kind that this version does not know.
 * Throws a TypeError for one that is cut off.
 * @param {ArrayBuffer} frame @returns {Piece | null} */
export function readBlockFrame(frame) {
    const view = new DataView(frame);
    if (view.byteLength === 0 || view.getUint8(0) !== BLOCK_KIND) return null;
    if (view.byteLength < HEADER) throw new TypeError("a binary frame that is cut off");
    return {
        last: (view.getUint8(1) & LAST_PIECE) !== 0,
        channel: view.getUint16(2, true),
        transfer: view.getUint32(4, true),
        number: Number(view.getBigUint64(8, true)),
        data: new Uint8Array(frame, HEADER),
    };
}

/** A frame that carries a block from the page.
 * @param {number} channel the page's own number for the channel
 * @param {Uint8Array} block @returns {Uint8Array} */
export function writeBlockFrame(channel, block) {
    const frame = new Uint8Array(HEADER + block.length);
    frame[0] = BLOCK_KIND;
    frame[1] = LAST_PIECE;
    new DataView(frame.buffer).setUint16(2, channel, true);
    frame.set(block, HEADER);
    return frame;
}

/** Reads a JSON text in which not-a-number and infinities may stand as bare words.
 * @param {string} text @returns {any} */
export function readJson(text: string): any;
/** The bytes that a Base64 text stands for. Throws for a text that is none.
 * @param {string} text @returns {Uint8Array} */
export function fromBase64(text: string): Uint8Array;
/** Calls `handle` for each record of a batch, in order. What is not valid UTF-8 has replacement
 * characters. Throws a TypeError where the batch cannot be read; what came before has been handled.
 * @param {string} frame
 * @param {(number: number, channel: string, text: string) => void} handle */
export function readBatch(frame: string, handle: (number: number, channel: string, text: string) => void): void;
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
export function readBlockFrame(frame: ArrayBuffer): Piece | null;
/** A frame that carries a block from the page.
 * @param {number} channel the page's own number for the channel
 * @param {Uint8Array} block @returns {Uint8Array} */
export function writeBlockFrame(channel: number, block: Uint8Array): Uint8Array;
/** Bytes before a block in its frame. */
export const HEADER: 16;
export type Piece = {
    last: boolean;
    /**
     * its number
     */
    channel: number;
    transfer: number;
    /**
     * of the message if this is the last piece, else the block's size
     */
    number: number;
    /**
     * shares the frame's memory
     */
    data: Uint8Array;
};

/** A message as JSON, its size in bytes of UTF-8 and the number of channels that it names.
 * @typedef {{text: string, bytes: number, names: number}} Encoded */
/** Halves of a surrogate pair that stand alone become U+FFFD: there is no UTF-8 for them.
 * @param {string} text @returns {string} */
export function wellFormed(text: string): string;
/** @param {string} text well-formed @returns {number} bytes of UTF-8 */
export function byteLength(text: string): number;
/** The beginning of a text, whole characters that take so many bytes at most.
 * @param {string} text @param {number} bytes @returns {string} */
export function cutTo(text: string, bytes: number): string;
/** The name as it goes out. Throws a RangeError for one that the gateway would refuse.
 * @param {string} name @returns {string} */
export function channelName(name: string): string;
/** @param {object} message @param {number} [names] @returns {Encoded} */
export function encode(message: object, names?: number): Encoded;
/** Names for one message, as many as fit; takes them away from `names`.
 * @param {string[]} names @param {number} most bytes of JSON
 * @param {number} [mostNames] @returns {string[]} */
export function takeNames(names: string[], most: number, mostNames?: number): string[];
/** The frames that messages make, in order: as few as can be.
 * @param {Encoded[]} messages @param {number} most bytes of a frame
 * @param {number} [mostNames] @returns {Generator<string>} */
export function framesOf(messages: Encoded[], most: number, mostNames?: number): Generator<string>;
/** Bytes of a channel's name. */
export const MOST_NAME_BYTES: 1024;
/** Channels that one frame may name, as long as the gateway has not said otherwise. */
export const MOST_NAMES: 1024;
/**
 * A message as JSON, its size in bytes of UTF-8 and the number of channels that it names.
 */
export type Encoded = {
    text: string;
    bytes: number;
    names: number;
};

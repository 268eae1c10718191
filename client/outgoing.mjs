// What a page sends, as texts and frames that the gateway takes.

/** Bytes of a channel's name. */
export const MOST_NAME_BYTES = 1024;
/** Channels that one frame may name, as long as the gateway has not said otherwise. */
export const MOST_NAMES = 1024;

/** A message as JSON, its size in bytes of UTF-8 and the number of channels that it names.
 * @typedef {{text: string, bytes: number, names: number}} Encoded */

/** Halves of a surrogate pair that stand alone become U+FFFD: there is no UTF-8 for them.
 * @param {string} text @returns {string} */
export function wellFormed(text) {
    const known = /** @type {any} */ (text);
    return known.toWellFormed ? known.toWellFormed() : text.replace(/\p{Surrogate}/gu, "\ufffd");
}

/** @param {string} text well-formed @returns {number} bytes of UTF-8 */
export function byteLength(text) {
    let bytes = text.length;
    for (let i = 0; i < text.length; ++i) {
        const unit = text.charCodeAt(i);
        if (unit > 0x7f) ++bytes;
        // A pair of surrogates, two units, makes four bytes.
        if (unit > 0x7ff && (unit < 0xd800 || unit > 0xdfff)) ++bytes;
    }
    return bytes;
}

/** The beginning of a text, whole characters that take so many bytes at most.
 * @param {string} text @param {number} bytes @returns {string} */
export function cutTo(text, bytes) {
    let end = 0;
    for (const character of wellFormed(text)) {
        bytes -= byteLength(character);
        if (bytes < 0) break;
        end += character.length;
    }
    return wellFormed(text).slice(0, end);
}

/** The name as it goes out. Throws a RangeError for one that the gateway would refuse.
 * @param {string} name @returns {string} */
export function channelName(name) {
    const sent = wellFormed(name);
    const bytes = byteLength(sent);
    if (bytes <= MOST_NAME_BYTES) return sent;
    throw new RangeError(`a channel's name of ${bytes} bytes, of ${MOST_NAME_BYTES} at most`);
}

/** @param {object} message @param {number} [names] @returns {Encoded} */
export function encode(message, names = 1) {
    const text = JSON.stringify(message);
    return { text, bytes: byteLength(text), names };
}

/** Names for one message, as many as fit; takes them away from `names`.
 * @param {string[]} names @param {number} most bytes of JSON
 * @param {number} [mostNames] @returns {string[]} */
export function takeNames(names, most, mostNames = MOST_NAMES) {
    let count = 0;
    for (let bytes = 0; count < Math.min(names.length, mostNames); ++count) {
        bytes += byteLength(JSON.stringify(names[count])) + 1;
        if (count > 0 && bytes > most) break;
    }
    return names.splice(0, count);
}

/** The frames that messages make, in order: as few as can be.
 * @param {Encoded[]} messages @param {number} most bytes of a frame
 * @param {number} [mostNames] @returns {Generator<string>} */
export function* framesOf(messages, most, mostNames = MOST_NAMES) {
    /** @type {string[]} */
    let texts = [];
    let size = 0;
    let count = 0;
    const join = () => (texts.length === 1 ? texts[0] : `[${texts.join(",")}]`);
    for (const { text, bytes, names } of messages) {
        if (texts.length > 0 && (size + bytes + 2 > most || count + names > mostNames)) {
            yield join();
            texts = [];
            size = count = 0;
        }
        texts.push(text);
        size += bytes + 1;
        count += names;
    }
    if (texts.length > 0) yield join();
}

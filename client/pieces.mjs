// Blocks that come in pieces, put together.

/** @typedef {{bytes: Uint8Array, filled: number, reason: string}} Part
 *   reason: why the block cannot be kept; empty while it can */

/** The blocks that are coming. */
export class Assembly {
    #most;
    /** By their transfers. @type {Map<number, Part>} */
    #parts = new Map();

    /** @param {number} most bytes of one block */
    constructor(most) {
        this.#most = most;
    }

    /** With a block's last piece the whole block, before it null. Throws a RangeError, with the last
     * piece too since an answer is due only then, for a block that cannot be kept.
     * @param {import("./wire.mjs").Piece} piece @returns {Uint8Array | null} */
    add({ transfer, last, number, data }) {
        let part = this.#parts.get(transfer);
        if (!part && last) return data;
        if (!part) {
            part = this.#begin(number);
            this.#parts.set(transfer, part);
        }
        append(part, data);
        if (!last) return null;
        this.#parts.delete(transfer);
        if (part.reason) throw new RangeError(part.reason);
        if (part.filled !== part.bytes.length) throw new RangeError("a block with a piece missing");
        return part.bytes;
    }

    /** The rest will not come. @param {number} transfer */
    forget(transfer) {
        this.#parts.delete(transfer);
    }

    clear() {
        this.#parts.clear();
    }

    /** @param {number} size @returns {Part} */
    #begin(size) {
        const refused = (/** @type {string} */ why) => ({
            bytes: new Uint8Array(0),
            filled: 0,
            reason: `a block of ${size} bytes${why}`,
        });
        if (size > this.#most) return refused(`, of ${this.#most} at most`);
        try {
            return { bytes: new Uint8Array(size), filled: 0, reason: "" };
        } catch {
            return refused(": no memory");
        }
    }
}

/** @param {Part} part @param {Uint8Array} data */
function append(part, data) {
    if (part.reason) return;
    if (part.filled + data.length > part.bytes.length) {
        part.reason = `a block of more than its ${part.bytes.length} bytes`;
        part.bytes = new Uint8Array(0);
        return;
    }
    part.bytes.set(data, part.filled);
    part.filled += data.length;
}

/** @typedef {{bytes: Uint8Array, filled: number, reason: string}} Part
 *   reason: why the block cannot be kept; empty while it can */
/** The blocks that are coming. */
export class Assembly {
    /** @param {number} most bytes of one block */
    constructor(most: number);
    /** With a block's last piece the whole block, before it null. Throws a RangeError, with the last
     * piece too since an answer is due only then, for a block that cannot be kept.
     * @param {import("./wire.mjs").Piece} piece @returns {Uint8Array | null} */
    add({ transfer, last, number, data }: import("./wire.mjs").Piece): Uint8Array | null;
    /** The rest will not come. @param {number} transfer */
    forget(transfer: number): void;
    clear(): void;
    #private;
}
/**
 * reason: why the block cannot be kept; empty while it can
 */
export type Part = {
    bytes: Uint8Array;
    filled: number;
    reason: string;
};

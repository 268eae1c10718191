/** @typedef {{first: number, soon: number, most: number}} Waits milliseconds: before the first
 *   attempt, at most while the view can still be returned to, and at most */
/** Doubles with each attempt. Half of a wait is chance, so that many pages do not come at once. */
export class Backoff {
    /** @param {Waits} waits @param {() => number} random from 0 to below 1 */
    constructor(waits: Waits, random: () => number);
    /** The connection was lost now. @param {number} milliseconds for which its view is kept */
    lost(milliseconds: number): void;
    /** The next wait is a first one. */
    reset(): void;
    /** @returns {number} milliseconds */
    next(): number;
    #private;
}
/**
 * milliseconds: before the first
 *  attempt, at most while the view can still be returned to, and at most
 */
export type Waits = {
    first: number;
    soon: number;
    most: number;
};

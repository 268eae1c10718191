/** Counts the messages of one view after another. */
export class Acknowledgement {
    /** @param {(last: number) => void} acknowledge tells the gateway */
    constructor(acknowledge: (last: number) => void);
    /** The number of the last message handled. */
    get last(): number;
    /** A view begins. @param {number} next the number of its first message */
    begin(next: number): void;
    /** A connection begins. @param {Record<string, number>} limits of the gateway */
    connected(limits: Record<string, number>): void;
    /** The connection is over: the next one's hello acknowledges. */
    stop(): void;
    /** Counts a message as handled. Returns how many are missing before it, or -1 if it was handled
     * already. @param {number} number @returns {number} */
    take(number: number): number;
    /** Counts a message that will not come as handled, once all before it are.
     * @param {number} [number] absent: it was not numbered */
    withdraw(number?: number): void;
    /** A frame of so many bytes, or UTF-16 units, has been handled. Acknowledges, now or later, what
     * is new. Before it is due: a unit may be three bytes, and the acknowledgement takes its time.
     * @param {number} size */
    count(size: number): void;
    #private;
}

/** In microseconds. What is ahead is right up to the uncertainty.
 * @typedef {{ahead: number, uncertainty: number}} Difference */
/** "shift": what makes of a stamp of the page's one of the engine's; 0 where it is not known that they
 * differ. @typedef {Difference & {shift: number}} Clock */
/** Measures while there is a connection. What was measured stays until there is something new. */
export class EngineClock {
    /** @param {() => number} now microseconds since 1970
     * @param {(answered: (message: any) => void) => void} ask the gateway */
    constructor(now: () => number, ask: (answered: (message: any) => void) => void);
    /** The engine's to the page's; null: nothing is known. @returns {Clock | null} */
    get clock(): Clock | null;
    /** There is a connection. */
    begin(): void;
    /** It is lost. */
    stop(): void;
    #private;
}
/**
 * In microseconds. What is ahead is right up to the uncertainty.
 */
export type Difference = {
    ahead: number;
    uncertainty: number;
};
/**
 * "shift": what makes of a stamp of the page's one of the engine's; 0 where it is not known that they
 * differ.
 */
export type Clock = Difference & {
    shift: number;
};

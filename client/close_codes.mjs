// Why a connection is closed, and what that means for the next attempt.

/** Those from 4000 on are this protocol's own, the others those of WebSocket. */
export const CLOSE_CODES = {
    stopped: 1001,
    restarted: 1012,
    brokenFrame: 1002,
    invalidText: 1007,
    tooLarge: 1009,
    badMessage: 4000,
    noHello: 4001,
    version: 4002,
    tooSlow: 4003,
    silent: 4004,
    returnedElsewhere: 4005,
    badReturn: 4006,
    /** The page's own, for a connection that it gives up: the view stays. */
    givenUp: 4900,
};

/** @typedef {"return" | "afresh" | "refused"} NextAttempt
 *   return: to the view; afresh: with a new view; refused: none, since the end would be the same */

/** @type {Map<number, NextAttempt>} */
const NEXT = new Map([
    [CLOSE_CODES.stopped, "afresh"],
    [CLOSE_CODES.restarted, "afresh"],
    [CLOSE_CODES.brokenFrame, "refused"],
    [CLOSE_CODES.invalidText, "refused"],
    [CLOSE_CODES.tooLarge, "refused"],
    [CLOSE_CODES.badMessage, "refused"],
    [CLOSE_CODES.noHello, "afresh"],
    [CLOSE_CODES.version, "refused"],
    [CLOSE_CODES.tooSlow, "afresh"],
    [CLOSE_CODES.returnedElsewhere, "afresh"],
    [CLOSE_CODES.badReturn, "afresh"],
]);

/** A connection that was lost, for whatever reason, is returned to.
 * @param {number} code @returns {NextAttempt} */
export function nextAttempt(code) {
    return NEXT.get(code) ?? "return";
}

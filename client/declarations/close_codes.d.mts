/** A connection that was lost, for whatever reason, is returned to.
 * @param {number} code @returns {NextAttempt} */
export function nextAttempt(code: number): NextAttempt;
export namespace CLOSE_CODES {
    let stopped: number;
    let restarted: number;
    let brokenFrame: number;
    let invalidText: number;
    let tooLarge: number;
    let badMessage: number;
    let noHello: number;
    let version: number;
    let tooSlow: number;
    let silent: number;
    let returnedElsewhere: number;
    let badReturn: number;
    let givenUp: number;
}
/**
 * return: to the view; afresh: with a new view; refused: none, since the end would be the same
 */
export type NextAttempt = "return" | "afresh" | "refused";

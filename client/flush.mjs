// When a token goes back: after the animation frame that painted everything before it.

/** @typedef {"painted" | "hidden" | "failed"} Outcome */

/**
 * @typedef {object} Token
 * @property {Record<string, any>} command
 * @property {number} received microseconds since 1970
 */

/**
 * @typedef {object} Surroundings
 * @property {() => void} paint what has changed. What it throws is reported
 * @property {() => boolean} isHidden whether the page gets no animation frames
 * @property {(call: () => void) => void} onFrame calls in the next animation frame
 * @property {(call: () => void) => void} afterPaint called in an animation frame; calls when that
 *   is painted
 * @property {(error: Error) => void} report
 * @property {(token: Token, outcome: Outcome) => void} answer
 */

/** Microseconds since 1970, a whole number. */
export function now() {
    return Math.round((performance.timeOrigin + performance.now()) * 1000);
}

/** Paints in animation frames, and answers the tokens. */
export class Flusher {
    #surroundings;
    /** @type {Token[]} */
    #tokens = [];
    #requested = false;
    #failed = false;

    /** @param {Surroundings} surroundings */
    constructor(surroundings) {
        this.#surroundings = surroundings;
    }

    /** Something has changed. */
    request() {
        if (this.#requested || this.#surroundings.isHidden()) return;
        this.#requested = true;
        this.#surroundings.onFrame(() => this.#frame());
    }

    /** Something before the next token could not be drawn. Reports it.
     * @param {Error} error */
    fail(error) {
        this.#surroundings.report(error);
        this.#failed = true;
    }

    /** Everything before the token has been decoded. @param {Token} token */
    token(token) {
        const { answer, isHidden } = this.#surroundings;
        if (this.#failed) {
            this.#failed = false;
            answer(token, "failed");
        } else if (isHidden()) {
            answer(token, "hidden");
        } else {
            this.#tokens.push(token);
        }
        this.request();
    }

    /** The page was hidden or shown. */
    visibilityChanged() {
        if (this.#surroundings.isHidden()) this.#answerAll(this.#tokens.splice(0), "hidden");
        else this.request();
    }

    /** No token that is here means anything any more. */
    forget() {
        this.#tokens = [];
        this.#failed = false;
    }

    #frame() {
        this.#requested = false;
        const tokens = this.#tokens.splice(0);
        try {
            this.#surroundings.paint();
        } catch (error) {
            this.#surroundings.report(error instanceof Error ? error : new Error(String(error)));
            // What could not be painted belongs to the next token, if there is none yet.
            if (tokens.length === 0) this.#failed = true;
            this.#answerAll(tokens, "failed");
            return;
        }
        if (tokens.length === 0) return;
        this.#surroundings.afterPaint(() => this.#answerAll(tokens, "painted"));
    }

    /** @param {Token[]} tokens @param {Outcome} outcome */
    #answerAll(tokens, outcome) {
        for (const token of tokens) this.#surroundings.answer(token, outcome);
    }
}

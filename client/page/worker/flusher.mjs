// When a frame is drawn, and when its token goes back: once all of it is on the screen.

/** @typedef {import("./frames.mjs").Frame} Frame */
/** @typedef {import("../messages.mjs").Outcome} Outcome */

/**
 * @typedef {object} Surroundings
 * @property {(frame: Frame) => void} apply brings the scene up to date. What cannot be carried out
 *   becomes the frame's error
 * @property {() => "hidden" | "paused" | null} unseen why nobody sees what is drawn
 * @property {() => boolean} isReady whether the axes are laid out: if not, `request` comes
 * @property {() => {stamp: number, errors: Error[], begun: number}} paint what has changed; stamp:
 *   what the main thread will confirm, 0: nothing; begun: when, microseconds since 1970
 * @property {(call: () => void) => void} onFrame calls in the next animation frame
 * @property {(call: () => void) => void} afterPaint calls in a task of its own: behind the animation
 *   frame, if one goes on
 * @property {(frame: Frame, outcome: Outcome) => void} answer for a frame with a token
 * @property {() => void} counted a frame was painted
 */

/** Frames that were drawn and are not on the screen yet.
 * @typedef {{frames: Frame[], stamp: number, isDrawn: boolean}} Painting */

/** Complete frames that wait for those before to be painted. With more, some are left out. */
const MOST_WAITING = 2;

export class Flusher {
    #surroundings;
    /** Complete, and not in the scene. @type {Frame[]} */
    #waiting = [];
    /** In the scene, and not drawn. @type {Frame[]} */
    #applied = [];
    /** @type {Painting[]} */
    #paintings = [];
    #isRequested = false;
    #isSoon = false;
    /** Of a frame without a token: the next one has to tell. @type {Error | null} */
    #error = null;

    /** @param {Surroundings} surroundings */
    constructor(surroundings) {
        this.#surroundings = surroundings;
    }

    /** @param {Frame} frame complete */
    take(frame) {
        this.#waiting.push(frame);
        this.#advance();
    }

    /** Something else has changed that is to be seen. */
    request() {
        if (this.#isRequested || this.#surroundings.unseen() === "hidden") return;
        this.#isRequested = true;
        this.#surroundings.onFrame(() => this.#frame());
    }

    /** The same of what somebody looks at. Painted at once, since waiting for an animation frame loses
     * one: the main thread shows all of it, in one of its own. */
    requestSoon() {
        this.request();
        if (this.#isSoon) return;
        this.#isSoon = true;
        // Once for all that has come meanwhile.
        this.#surroundings.afterPaint(() => {
            this.#isSoon = false;
            this.#draw();
        });
    }

    /** The page was hidden or shown, or paused or not. */
    seenChanged() {
        const outcome = this.#surroundings.unseen();
        if (outcome) {
            for (const { frames } of this.#paintings.splice(0)) this.#answer(frames, outcome);
            this.#answer(this.#applied.splice(0), outcome);
        }
        this.#advance();
        this.request();
    }

    /** What was painted with the stamp is on the screen. @param {number} stamp */
    confirm(stamp) {
        for (const painting of this.#paintings) {
            if (painting.stamp !== 0 && painting.stamp <= stamp) painting.stamp = 0;
        }
        this.#release();
    }

    /** No frame that is here means anything any more. */
    forget() {
        this.#waiting = [];
        this.#applied = [];
        this.#paintings = [];
        this.#error = null;
    }

    #advance() {
        const { unseen } = this.#surroundings;
        while (this.#waiting.length > 0) {
            const outcome = unseen();
            const isNext = this.#applied.length === 0 || this.#waiting.length > MOST_WAITING;
            if (!outcome && !isNext) return;
            const frame = /** @type {Frame} */ (this.#waiting.shift());
            if (frame.isWhole) this.#error = null;
            this.#surroundings.apply(frame);
            if (outcome) {
                this.#answer([frame], outcome);
            } else {
                this.#applied.push(frame);
                this.request();
            }
        }
    }

    #frame() {
        this.#isRequested = false;
        this.#draw();
    }

    #draw() {
        const { isReady, paint, unseen, afterPaint, counted } = this.#surroundings;
        if (unseen() === "hidden" || !isReady()) return;
        const { stamp, errors, begun } = paint();
        const frames = this.#applied.splice(0);
        for (const frame of frames) frame.begun = begun;
        if (frames.length > 0) {
            counted();
            const last = frames[frames.length - 1];
            last.error ??= errors[0] ?? null;
            const painting = { frames, stamp, isDrawn: false };
            this.#paintings.push(painting);
            afterPaint(() => {
                painting.isDrawn = true;
                this.#release();
            });
        }
        this.#advance();
    }

    #release() {
        while (this.#paintings.length > 0) {
            const [{ frames, stamp, isDrawn }] = this.#paintings;
            if (!isDrawn || stamp !== 0) return;
            this.#paintings.shift();
            this.#answer(frames, "painted");
        }
    }

    /** @param {Frame[]} frames @param {Outcome} outcome of those that did not fail */
    #answer(frames, outcome) {
        for (const frame of frames) {
            if (frame.token) {
                frame.error ??= this.#error;
                this.#error = null;
                this.#surroundings.answer(frame, frame.error ? "failed" : outcome);
            } else {
                this.#error ??= frame.error;
            }
        }
    }
}

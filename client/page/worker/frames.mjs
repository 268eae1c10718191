// Commands, gathered into frames: what belongs together is drawn together.

/** @typedef {import("./inbox.mjs").Command} Command */

/**
 * @typedef {object} Frame
 * @property {number} number the engine's; -1: of what came outside of all frames
 * @property {number} attempt
 * @property {boolean} isWhole
 * @property {{side: number, scene: import("./scene.mjs").Scene}[]} [scenes] each in the place of what
 *   is on that side, before the commands are carried out
 * @property {[Command, Uint8Array | null][]} commands
 * @property {Token | null} token
 * @property {Error | null} error the first
 * @property {number} [begun] when it was begun to be painted, microseconds since 1970; else it was not
 */

/**
 * @typedef {object} Token
 * @property {Command} command
 * @property {number} received microseconds since 1970
 */

/** Milliseconds for which changes without a frame wait for more of them. */
const PATIENCE = 50;

/** What the page knows of a frame's way: microseconds since 1970, 0 where it does not know.
 * @param {Frame} frame @param {number} sent when its token goes back
 * @param {number} [shift] what is added to stamps of the page's */
export function stampsOf({ token, begun }, sent, shift = 0) {
    return {
        serverSend: Number(token?.command.serverSendTS) || 0,
        clientReceive: token ? token.received + shift : 0,
        clientPaint: begun ? begun + shift : 0,
        clientSend: sent + shift,
        serverReceive: 0,
    };
}

export class Frames {
    #complete;
    #now;
    /** @type {Frame | null} */
    #open = null;
    /** @type {ReturnType<typeof setTimeout> | undefined} */
    #timer;

    /** @param {(frame: Frame) => void} complete takes each, in order
     * @param {() => number} now microseconds since 1970 */
    constructor(complete, now) {
        this.#complete = complete;
        this.#now = now;
    }

    /** @param {Command} command @param {Uint8Array | null} data */
    take(command, data) {
        if (command.cmd === "sendACT") {
            this.#opened().token = { command, received: this.#now() };
            this.#close();
            return;
        }
        if (command.cmd === "beginFrame") {
            // A frame whose token does not come, or changes from before.
            if (this.#open) this.#close();
            this.#begin(Number(command.frame), Number(command.attempt), command.whole === true);
        }
        this.#opened().commands.push([command, data]);
    }

    /** Something of the frame that is coming cannot be drawn. @param {Error} error */
    fail(error) {
        this.#opened().error ??= error;
    }

    /** What is coming means nothing any more. */
    forget() {
        clearTimeout(this.#timer);
        this.#open = null;
    }

    /** @param {number} number @param {number} attempt @param {boolean} isWhole @returns {Frame} */
    #begin(number, attempt, isWhole) {
        this.#open = { number, attempt, isWhole, commands: [], token: null, error: null };
        return this.#open;
    }

    /** @returns {Frame} */
    #opened() {
        if (this.#open) return this.#open;
        this.#timer = setTimeout(() => this.#close(), PATIENCE);
        return this.#begin(-1, 0, false);
    }

    #close() {
        clearTimeout(this.#timer);
        const frame = this.#open;
        this.#open = null;
        if (frame) this.#complete(frame);
    }
}

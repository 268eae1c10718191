// Commands and blocks as they come, put together: what is handed on is complete and in order.

import { fromBase64, readJson } from "../../wire.mjs";

const BLOCK_OF_COMMAND = "1 0";
const BLOCK_LOST = "2 0";
const BLOCK_ID_SIZE = 8;
/** Of the latest blocks so many are remembered as used. */
const MOST_USED = 4096;
const LONGEST_QUOTE = 80;

/** @typedef {Record<string, any> & {cmd: string}} Command */

/**
 * @typedef {object} Handlers
 * @property {(command: Command, data: Uint8Array | null) => void} take with the data of the block
 *   that the command names; tokens too
 * @property {(error: Error) => void} report something is missing or cannot be read
 */

/** The text form of the identifier at the beginning of a block.
 * @param {Uint8Array} block @returns {string} */
function identifierOf(block) {
    const view = new DataView(block.buffer, block.byteOffset, BLOCK_ID_SIZE);
    return `${view.getUint32(0, true)} ${view.getUint32(4, true)}`;
}

/** How a lost block is named: the bytes of its identifier up to the first that is zero.
 * @param {string} identifier @returns {string} */
function nameWhenLost(identifier) {
    const view = new DataView(new ArrayBuffer(BLOCK_ID_SIZE));
    const [low, high] = identifier.split(" ").map(Number);
    view.setUint32(0, low, true);
    view.setUint32(4, high, true);
    const bytes = new Uint8Array(view.buffer);
    const end = bytes.indexOf(0);
    return new TextDecoder().decode(bytes.subarray(0, end < 0 ? BLOCK_ID_SIZE : end));
}

/** Takes the messages of the command channel and the blocks. It knows nothing before the first
 * whole frame, and begins anew with each further one. */
export class Inbox {
    #handlers;
    /** From the first one on whose block is not there. @type {Command[]} */
    #commands = [];
    /** Without the identifier. @type {Map<string, Uint8Array>} */
    #blocks = new Map();
    /** The latest that were used, each of which belongs to one command: one that another page gave
     * back comes to every page again, as text. @type {Set<string>} */
    #used = new Set();
    /** @type {Set<string>} */
    #lost = new Set();
    /** Whether something could not be read that may have been a block: none is waited for until a
     * whole frame begins. */
    #isBroken = false;
    #began = false;
    #sequence = 0;

    /** @param {Handlers} handlers */
    constructor(handlers) {
        this.#handlers = handlers;
    }

    /** A message of the command channel. @param {string} text */
    text(text) {
        try {
            const command = readJson(text);
            if (typeof command?.cmd !== "string") throw new TypeError("not a command");
            this.#take(command);
        } catch (error) {
            this.#isBroken = true;
            const isLong = text.length > LONGEST_QUOTE;
            const start = isLong ? `${text.slice(0, LONGEST_QUOTE)}...` : text;
            this.#report(`${String(error)}: ${start}`);
        }
        this.#handOn();
    }

    /** A block of the stream, with its identifier. Throws for one without.
     * @param {Uint8Array} block */
    block(block) {
        if (block.length < BLOCK_ID_SIZE) throw new RangeError("a block without an identifier");
        this.#keep(identifierOf(block), block.subarray(BLOCK_ID_SIZE));
        this.#handOn();
    }

    /** @param {Command} command */
    #take(command) {
        if (command.cmd === "binarydata") return this.#takeTexts(command.data);
        if (command.cmd === "beginFrame" && command.whole === true) this.#beginAnew(command.seq);
        if (this.#began) this.#commands.push(command);
        return undefined;
    }

    /** @param {Record<string, string>} blocks */
    #takeTexts(blocks) {
        for (const [identifier, text] of Object.entries(blocks)) {
            if (identifier === BLOCK_LOST) {
                this.#lost.add(text);
                this.#report("the engine had no memory for a block");
            } else {
                this.#keep(identifier, fromBase64(text));
            }
        }
    }

    /** What came before a whole frame means nothing any more, its blocks included: those of the
     * frame come behind its beginning. @param {number} sequence */
    #beginAnew(sequence) {
        this.#commands = [];
        this.#blocks.clear();
        this.#lost.clear();
        this.#isBroken = false;
        this.#sequence = sequence - 1;
        this.#began = true;
    }

    /** @param {string} identifier @param {Uint8Array} data */
    #keep(identifier, data) {
        if (identifier === BLOCK_OF_COMMAND) this.text(new TextDecoder().decode(data));
        else if (this.#began && !this.#used.has(identifier)) this.#blocks.set(identifier, data);
    }

    #handOn() {
        let done = 0;
        while (done < this.#commands.length && this.#handOnOne(this.#commands[done])) ++done;
        this.#commands.splice(0, done);
    }

    /** False: it has to wait for its block. @param {Command} command @returns {boolean} */
    #handOnOne(command) {
        if (command.cmd === "sendACT") {
            this.#handlers.take(command, null);
            return true;
        }
        const name = command.cmd === "data" ? String(command.data) : null;
        const data = name === null ? null : (this.#blocks.get(name) ?? null);
        const isLost = name !== null && !data;
        if (isLost && !this.#lost.delete(nameWhenLost(name)) && !this.#isBroken) return false;
        if (name !== null) this.#use(name);
        if (command.seq !== ++this.#sequence) {
            this.#report(`command ${command.seq} came instead of ${this.#sequence}`);
            this.#sequence = Number(command.seq);
        }
        if (isLost) this.#report(`block ${name} is lost`);
        else this.#handlers.take(command, data);
        return true;
    }

    /** @param {string} identifier */
    #use(identifier) {
        this.#blocks.delete(identifier);
        this.#used.add(identifier);
        if (this.#used.size <= MOST_USED) return;
        const [oldest] = this.#used;
        this.#used.delete(oldest);
    }

    /** @param {string} text */
    #report(text) {
        this.#handlers.report(new Error(text));
    }
}

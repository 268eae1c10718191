// Commands and blocks as they come, put together: what is handed on is complete and in order.

import { fromBase64, readJson } from "./wire.mjs";

const BLOCK_OF_COMMAND = "1 0";
const BLOCK_LOST = "2 0";
const BLOCK_ID_SIZE = 8;
const MOST_USED = 4096;

/** The text form of the identifier at the beginning of a block.
 * @param {Uint8Array} block @returns {string} */
export function identifierOf(block) {
    const view = new DataView(block.buffer, block.byteOffset, BLOCK_ID_SIZE);
    return `${view.getUint32(0, true)} ${view.getUint32(4, true)}`;
}

/** How a lost block is named: the bytes of its identifier up to the first that is zero.
 * @param {string} identifier @returns {string} */
function nameWhenLost(identifier) {
    const [low, high] = identifier.split(" ").map(Number);
    const bytes = new Uint8Array(BLOCK_ID_SIZE);
    const view = new DataView(bytes.buffer);
    view.setUint32(0, low, true);
    view.setUint32(4, high, true);
    const end = bytes.indexOf(0);
    return new TextDecoder().decode(bytes.subarray(0, end < 0 ? BLOCK_ID_SIZE : end));
}

/** @typedef {Record<string, any> & {cmd: string}} Command */

/**
 * @typedef {object} Handlers
 * @property {(command: Command, data: Uint8Array | null) => void} draw with the data of the block
 *   that the command names. What it throws is reported
 * @property {(command: Command) => void} token everything before it has been handed to `draw`
 * @property {(error: Error) => void} report something is missing or cannot be read
 */

/** Takes the messages of the command channel and the blocks. It knows nothing before the first
 * whole frame, and begins anew with each further one. */
export class Inbox {
    #handlers;
    /** Behind a command whose block is not there. @type {Command[]} */
    #commands = [];
    /** Without the identifier. @type {Map<string, Uint8Array>} */
    #blocks = new Map();
    /** The latest blocks that were drawn, each of which belongs to one command: one that another page
     * gave back comes to every page again, as text. @type {Set<string>} */
    #used = new Set();
    /** @type {Set<string>} */
    #lost = new Set();
    #began = false;
    #sequence = 0;

    /** @param {Handlers} handlers */
    constructor(handlers) {
        this.#handlers = handlers;
    }

    /** Commands that wait for a block. */
    get waiting() {
        return this.#commands.length;
    }

    /** A message of the command channel. @param {string} text */
    text(text) {
        let command;
        try {
            command = readJson(text);
            if (typeof command?.cmd !== "string") throw new TypeError("not a command");
        } catch (error) {
            const start = text.length > 80 ? `${text.slice(0, 80)}...` : text;
            this.#handlers.report(new Error(`${String(error)}: ${start}`));
            return;
        }
        this.#take(command);
        this.#drawWhatIsComplete();
    }

    /** A block of the stream, with its identifier. Throws for one without.
     * @param {Uint8Array} block */
    block(block) {
        if (block.length < BLOCK_ID_SIZE) throw new RangeError("a block without an identifier");
        this.#keep(identifierOf(block), block.subarray(BLOCK_ID_SIZE));
        this.#drawWhatIsComplete();
    }

    /** @param {Command} command */
    #take(command) {
        if (command.cmd === "binarydata") {
            for (const [identifier, text] of Object.entries(command.data)) {
                if (identifier === BLOCK_LOST) {
                    this.#lost.add(text);
                    this.#report("the engine had no memory for a block");
                } else {
                    this.#keep(identifier, fromBase64(text));
                }
            }
            return;
        }
        if (command.cmd === "beginFrame" && command.whole) this.#beginAnew(command.seq);
        if (this.#began) this.#commands.push(command);
    }

    /** What came before a whole frame means nothing any more, its blocks included: those of the
     * frame come behind its beginning. @param {number} sequence */
    #beginAnew(sequence) {
        this.#commands = [];
        this.#blocks.clear();
        this.#lost.clear();
        this.#sequence = sequence - 1;
        this.#began = true;
    }

    /** @param {string} identifier @param {Uint8Array} data */
    #keep(identifier, data) {
        if (identifier === BLOCK_OF_COMMAND) this.text(new TextDecoder().decode(data));
        else if (this.#began && !this.#used.has(identifier)) this.#blocks.set(identifier, data);
    }

    /** @param {string} identifier */
    #use(identifier) {
        this.#blocks.delete(identifier);
        this.#used.add(identifier);
        if (this.#used.size <= MOST_USED) return;
        const [oldest] = this.#used;
        this.#used.delete(oldest);
    }

    #drawWhatIsComplete() {
        let drawn = 0;
        while (drawn < this.#commands.length && this.#draw(this.#commands[drawn])) ++drawn;
        this.#commands.splice(0, drawn);
    }

    /** False: it has to wait for its block. @param {Command} command @returns {boolean} */
    #draw(command) {
        if (command.cmd === "sendACT") {
            this.#handlers.token(command);
            return true;
        }
        const name =
            command.cmd === "setData" || command.cmd === "appendData" ? command.data : null;
        const data = name === null ? null : (this.#blocks.get(name) ?? null);
        if (name !== null && !data) {
            if (!this.#lost.delete(nameWhenLost(name))) return false;
            ++this.#sequence;
            this.#report(`block ${name} is lost`);
            return true;
        }
        if (name !== null) this.#use(name);
        if (command.seq !== ++this.#sequence) {
            this.#report(`command ${command.seq} came instead of ${this.#sequence}`);
            this.#sequence = command.seq;
        }
        try {
            this.#handlers.draw(command, data);
        } catch (error) {
            this.#report(`${command.cmd}: ${error instanceof Error ? error.message : error}`);
        }
        return true;
    }

    /** @param {string} text */
    #report(text) {
        this.#handlers.report(new Error(text));
    }
}

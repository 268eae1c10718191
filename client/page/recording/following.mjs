// Follows a recording message by message, and makes commands with their data of it.

import { readJson } from "../../wire.mjs";
import { MOST_OBJECTS } from "../worker/scene.mjs";
import { Decoder } from "./format.mjs";

/** @typedef {import("../worker/inbox.mjs").Command} Command */
/** @typedef {(command: Command, data: Uint8Array | null) => void} Take */

/** Bytes of blocks that wait for their command. */
const MOST_WAITING = 128 * 1024 * 1024;
/** What each takes besides its own. */
const BLOCK_COST = 300;
const ID_SIZE = 8;
/** Blocks of a snapshot: no scene has more objects. */
const MOST_BLOCKS = MOST_OBJECTS;

/** Values in one text, which each take some dozens of bytes. */
const MOST_VALUES = 2_000_000;
const BEGINNINGS = [..."{[,"].map((one) => one.charCodeAt(0));

/** @param {Uint8Array} text @returns {any} */
export function jsonOf(text) {
    if (text.length > MOST_VALUES) {
        const values = text.reduce((sum, one) => sum + Number(BEGINNINGS.includes(one)), 0);
        if (values > MOST_VALUES) throw new RangeError("too many values in a text");
    }
    return readJson(new TextDecoder().decode(text));
}

/** How commands name a block. @param {Uint8Array} block */
function nameOf(block) {
    const id = new Decoder(block);
    return `${id.u32()} ${id.u32()}`;
}

/** The block that a command names. It is one command's: others would make more of it than there is.
 * @param {Map<string, Uint8Array>} blocks @param {Command} command */
function takeFrom(blocks, command) {
    const name = String(command.data);
    const data = blocks.get(name);
    if (!data) throw new RangeError(`block ${name} is missing`);
    blocks.delete(name);
    return data;
}

/** A snapshot's commands, with the data of their blocks. Throws for one that is none.
 * @param {Uint8Array} message @returns {[Command, Uint8Array | null][]} */
export function commandsOf(message) {
    const rest = new Decoder(message);
    const { commands } = jsonOf(rest.raw(rest.u32()));
    /** @type {Map<string, Uint8Array>} */
    const blocks = new Map();
    while (!rest.isAtEnd) {
        const block = rest.raw(rest.size());
        if (blocks.size === MOST_BLOCKS) throw new RangeError("too many blocks in a snapshot");
        blocks.set(nameOf(block), block.subarray(ID_SIZE));
    }
    if (!Array.isArray(commands)) throw new TypeError("a snapshot without commands");
    return commands.map((command) => {
        if (command.cmd !== "data") return [command, null];
        return [command, takeFrom(blocks, command).slice()];
    });
}

export class Following {
    #take;
    /** Without their identifiers. @type {Map<string, Uint8Array>} */
    #blocks = new Map();
    #waiting = 0;

    /** @param {Take} take gets each command; the data are its own from then on */
    constructor(take) {
        this.#take = take;
    }

    /** Throws for what is none, or no block. @param {string | undefined} topic
     * @param {Uint8Array} data */
    follow(topic, data) {
        if (topic === "blocks") this.#keep(data);
        else if (topic === "commands") this.#hand(jsonOf(data));
        else if (topic === "frames") this.#forget();
    }

    /** @param {Uint8Array} block */
    #keep(block) {
        this.#waiting += block.length + BLOCK_COST;
        if (this.#waiting > MOST_WAITING) throw new RangeError("too many blocks without a command");
        // A copy: what waits must not keep its whole chunk.
        this.#blocks.set(nameOf(block), block.slice(ID_SIZE));
    }

    /** @param {Command} command */
    #hand(command) {
        if (command.cmd !== "data") {
            this.#take(command, null);
            return;
        }
        const data = takeFrom(this.#blocks, command);
        this.#waiting -= data.length + ID_SIZE + BLOCK_COST;
        this.#take(command, data);
    }

    /** All commands of a frame stand before its mark. */
    #forget() {
        this.#blocks.clear();
        this.#waiting = 0;
    }
}

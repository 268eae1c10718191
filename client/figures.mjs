// What the figures are: objects by their handles, as the commands describe them. Draws nothing.

/** Samples of a line in a second. */
export const SAMPLE_RATE = 360;

/** Numbers that are appended at the end and forgotten at the beginning. */
export class Numbers {
    #memory = new Float32Array(0);
    #begin = 0;
    #end = 0;

    get length() {
        return this.#end - this.#begin;
    }
    /** Shares memory with what is appended later: valid until the next change. */
    get values() {
        return this.#memory.subarray(this.#begin, this.#end);
    }
    /** @param {Float32Array} values */
    set(values) {
        this.#begin = this.#end = 0;
        this.append(values);
    }
    /** @param {Float32Array} values */
    append(values) {
        if (this.#end + values.length > this.#memory.length) this.#makeRoom(values.length);
        this.#memory.set(values, this.#end);
        this.#end += values.length;
    }
    /** @param {number} count from the beginning */
    forget(count) {
        this.#begin += Math.min(count, this.length);
    }
    /** @param {number} count */
    #makeRoom(count) {
        const values = this.values;
        const needed = values.length + count;
        const memory =
            needed * 2 > this.#memory.length ? new Float32Array(needed * 2) : this.#memory;
        memory.set(values);
        this.#memory = memory;
        this.#begin = 0;
        this.#end = values.length;
    }
}

/**
 * @typedef {object} Font
 * @property {string} family
 * @property {number} points
 * @property {"light" | "normal" | "demi" | "bold"} weight
 * @property {"normal" | "italic" | "oblique"} angle
 */

/** One object. What it does not have for its type stays as it is here. */
export class Item {
    /** @param {string} handle @param {string} type @param {string} name @param {Item | null} parent */
    constructor(handle, type, name, parent) {
        this.handle = handle;
        this.type = type;
        this.name = name;
        this.parent = parent;
    }
    text = "";
    visible = true;
    /** @type {[number, number, number]} from 0 to 1 */
    color = [0, 0, 0];
    /** Whether the engine has chosen the colour. */
    hasColor = false;
    width = 1;
    /** @type {Font} */
    font = { family: "sans-serif", points: 10, weight: "normal", angle: "normal" };
    /** @type {[number, number]} */
    position = [0, 0];
    /** @type {{x: [number, number], y: [number, number]}} */
    limits = { x: [0, 1], y: [0, 1] };
    labels = { x: "", y: "" };
    /** @type {{x: number[], labels: string[]} | null} */
    ticks = null;
    /** @type {Item[]} from back to front */
    children = [];
    data = new Numbers();
    columns = 1;
    /** Index of the first element in `data`. */
    first = 0;
    /** Counts the times that the data was set, not those that it was appended to. */
    generation = 0;

    /** Elements. */
    get count() {
        return this.data.length / this.columns;
    }
}

/** @param {unknown} condition @param {string} complaint */
function demand(condition, complaint) {
    if (!condition) throw new TypeError(complaint);
}

/** @param {any} value @returns {[number, number]} */
function rangeOf(value) {
    demand(Array.isArray(value) && value[0] < value[1], "limits that span nothing");
    return [value[0], value[1]];
}

/** @param {Record<string, any>} command @param {Uint8Array} bytes @returns {Float32Array} */
function numbersOf(command, bytes) {
    const size = Float32Array.BYTES_PER_ELEMENT;
    demand(
        bytes.length === command.count * command.columns * size,
        `${bytes.length} bytes for ${command.count} elements`,
    );
    const aligned = bytes.byteOffset % size === 0 ? bytes : bytes.slice();
    return new Float32Array(aligned.buffer, aligned.byteOffset, bytes.length / size);
}

/** The figures of one engine. */
export class Scene {
    /** @type {Map<string, Item>} */
    #items = new Map();
    /** Axes in which something has changed since they were painted. @type {Set<Item>} */
    changed = new Set();
    frame = { number: -1, attempt: 0, whole: false };
    /** False while a whole frame comes: there is more than what is known so far. */
    isComplete = true;

    /** @returns {Item[]} */
    get figures() {
        return [...this.#items.values()].filter((item) => item.type === "figure");
    }
    /** @param {Item} figure @returns {Item[]} */
    axesOf(figure) {
        return [...this.#items.values()].filter(
            (item) => item.type === "axes" && item.parent === figure,
        );
    }
    /** @param {string} name @returns {Item | undefined} */
    named(name) {
        return [...this.#items.values()].find((item) => item.name === name);
    }

    /** Carries a command out. Throws for one that cannot be, having changed nothing.
     * @param {Record<string, any>} command @param {Uint8Array | null} data */
    apply(command, data) {
        if (command.cmd === "beginFrame") {
            if (command.whole) {
                this.#items.clear();
                this.changed.clear();
                this.isComplete = false;
            }
            const { frame: number, attempt, whole = false } = command;
            this.frame = { number, attempt, whole };
        } else if (command.cmd === "create") {
            this.#create(command);
        } else {
            const item = this.#items.get(command.handle);
            if (!item) throw new TypeError(`no object ${command.handle}`);
            this.#change(item, command, data);
            this.#touch(item);
        }
    }

    /** @param {Record<string, any>} command */
    #create({ handle, type, name, parent }) {
        const known = this.#items.get(handle);
        if (known?.type === type) return;
        const owner = parent === undefined ? null : this.#items.get(parent);
        demand(owner !== undefined, `no parent ${parent}`);
        const item = new Item(handle, type, name, owner ?? null);
        this.#items.set(handle, item);
        this.#touch(item);
    }

    /** @param {Item} item @param {Record<string, any>} command @param {Uint8Array | null} data */
    #change(item, command, data) {
        switch (command.cmd) {
            case "setTitle":
            case "setText":
                item.text = String(command.text);
                break;
            case "setLimits":
                item.limits = { x: rangeOf(command.x), y: rangeOf(command.y) };
                item.children.forEach((child) => forgetPassed(child, item.limits.x[0]));
                break;
            case "setLabels":
                item.labels = { x: command.x, y: command.y };
                break;
            case "setTicks":
                demand(command.x.length === command.labels.length, "ticks without labels");
                item.ticks = { x: command.x, labels: command.labels };
                break;
            case "setChildren":
                item.children = command.children.map((/** @type {string} */ handle) => {
                    const child = this.#items.get(handle);
                    demand(child, `no child ${handle}`);
                    return child;
                });
                break;
            case "setStyle":
                item.color = command.color;
                item.hasColor = true;
                item.width = command.width;
                break;
            case "setFont":
                item.font = command.font;
                break;
            case "setPosition":
                item.position = command.position;
                break;
            case "setVisible":
                item.visible = command.visible === true;
                break;
            case "setData":
            case "appendData":
                this.#setData(item, command, data ?? new Uint8Array());
                break;
            default:
                throw new TypeError("no such command");
        }
    }

    /** @param {Item} item @param {Record<string, any>} command @param {Uint8Array} bytes */
    #setData(item, command, bytes) {
        const numbers = numbersOf(command, bytes);
        if (command.cmd === "setData") {
            item.data.set(numbers);
            item.columns = command.columns;
            item.first = command.first;
            ++item.generation;
            return;
        }
        const next = item.first + item.count;
        demand(command.columns === item.columns, `${command.columns} columns`);
        demand(command.first === next, `element ${command.first} appended instead of ${next}`);
        item.data.append(numbers);
    }

    /** @param {Item} item */
    #touch(item) {
        if (item.type === "figure") this.axesOf(item).forEach((axes) => this.changed.add(axes));
        else if (item.type === "axes") this.changed.add(item);
        else if (item.parent) this.changed.add(item.parent);
    }
}

/** Forgets the samples of a line that have left the chart, but for the one before its edge.
 * @param {Item} item @param {number} edge */
function forgetPassed(item, edge) {
    if (item.type !== "line") return;
    const passed = Math.floor(edge * SAMPLE_RATE) - 1 - item.first;
    if (passed <= 0) return;
    const count = Math.min(passed, item.count);
    item.data.forget(count);
    item.first += count;
}

/** Where the samples of a line lie, in seconds. @param {Item} line @returns {Float64Array} */
export function timesOf(line) {
    const times = new Float64Array(line.data.length);
    for (let i = 0; i < times.length; ++i) times[i] = (line.first + i) / SAMPLE_RATE;
    return times;
}

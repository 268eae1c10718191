// The objects that an engine has made, with their data. A command that cannot be carried out throws
// and changes nothing.

import { sideOf } from "../sides.mjs";
import { Column, RegularColumn, elementsOf } from "./columns.mjs";
import { ownDescription } from "./description.mjs";
import { TYPES, defaultsOf, readProperties } from "./vocabulary.mjs";

/** @typedef {import("./columns.mjs").ElementType} ElementType */
/** @typedef {import("./columns.mjs").Places} Places */
/** @typedef {import("./vocabulary.mjs").Type} Type */

/** So that nobody who makes objects takes all memory. */
export const MOST_OBJECTS = 100_000;
/** Bytes of all elements in what is replayed: a file may be anybody's. */
export const MOST_REPLAYED = 512 * 1024 * 1024;
const SIZES = { u8: 1, f32: 4, f64: 8 };

/** An object. */
export class Item {
    /** @type {Item[]} in the order of creation */
    children = [];
    /** By their names. @type {Record<string, Column>} */
    columns = {};
    /** Elements since it was last set. */
    given = 0;
    /** Counts how often its elements were set, and how often anything of it changed. */
    sets = 0;
    changes = 0;
    /** Another number whenever the engine has said its value. */
    said = 0;

    /** @param {number} id @param {string} type @param {Type | null} kind null: not known
     * @param {Item | null} parent @param {Record<string, any>} properties */
    constructor(id, type, kind, parent, properties) {
        this.id = id;
        this.type = type;
        this.kind = kind;
        this.parent = parent;
        this.properties = properties;
    }

    get family() {
        return this.kind?.family;
    }
    /** @param {string} family */
    childrenOf(family) {
        return this.children.filter((child) => child.family === family);
    }
    /** One that every other column of a series is as long as. @returns {Column | undefined} */
    get firstColumn() {
        return Object.values(this.columns)[0];
    }
    /** Bytes that its elements take. */
    get bytes() {
        return Object.values(this.columns).reduce((sum, one) => sum + one.elements.byteLength, 0);
    }
    /** What it has as its x. @returns {Places | null} */
    get places() {
        const { regular } = this.properties;
        const extent = this.firstColumn;
        if (regular && extent) return new RegularColumn(regular, extent);
        return this.columns.x ?? null;
    }

    /** As it is now, for somebody else. @param {Item | null} parent @returns {Item} */
    snapshot(parent) {
        const copy = new Item(this.id, this.type, this.kind, parent, { ...this.properties });
        copy.given = this.given;
        copy.sets = this.sets;
        copy.changes = this.changes;
        copy.said = this.said;
        for (const [name, column] of Object.entries(this.columns)) {
            copy.columns[name] = column.snapshot();
        }
        copy.children = this.children.map((child) => child.snapshot(copy));
        return copy;
    }
}

/** How often engines have said values, over all scenes. */
let numSaid = 0;

export class Scene {
    /** @type {Map<number, Item>} */
    #items = new Map();
    /** @type {Item[]} */
    figures = [];
    /** Axes that look different since somebody took this. @type {Set<number>} */
    changed = new Set();
    /** Whether something that stands in a description changed since. */
    isRestructured = true;
    /** Figures in which anything has changed since somebody took this. @type {Set<number>} */
    touched = new Set();
    /** Whether the engine listens to keys. */
    keys = false;
    /** The engine's number of the latest frame. */
    frame = 0;
    #most;
    /** Bytes of all elements. */
    #bytes = 0;

    /** @param {number} [most] bytes that all elements may take; an engine is trusted with them */
    constructor(most = Infinity) {
        this.#most = most;
    }

    /** @param {number} id @returns {Item | undefined} */
    find(id) {
        return this.#items.get(id);
    }
    /** All objects, each behind the one that it stands in. */
    get items() {
        return [...this.#items.values()];
    }
    /** All axes, in order. @returns {Item[]} */
    get axes() {
        return this.figures.flatMap((figure) => figure.childrenOf("axes"));
    }

    /** As it is now, for somebody else. @returns {Scene} */
    snapshot() {
        const copy = new Scene(this.#most);
        copy.#bytes = this.#bytes;
        copy.frame = this.frame;
        copy.keys = this.keys;
        copy.figures = this.figures.map((figure) => figure.snapshot(null));
        const enter = (/** @type {Item} */ item) => {
            copy.#items.set(item.id, item);
            item.children.forEach(enter);
        };
        copy.figures.forEach(enter);
        return copy;
    }

    /** What is here, but for what is on a side: that is another scene's. Both are not to be used any
     * more. @param {number} side @param {Scene} other @returns {Scene} */
    withSide(side, other) {
        const scene = new Scene(MOST_REPLAYED);
        const isKept = (/** @type {Item} */ { id }) => sideOf(id) !== side;
        const all = [...this.items.filter(isKept), ...other.items];
        scene.#bytes = all.reduce((sum, { bytes }) => sum + bytes, 0);
        scene.#items = new Map(all.map((item) => [item.id, item]));
        scene.figures = [...this.figures.filter(isKept), ...other.figures];
        scene.figures.sort((one, two) => sideOf(one.id) - sideOf(two.id));
        scene.frame = other.frame;
        return scene;
    }

    /** @param {Record<string, any>} command @param {Uint8Array | null} data */
    apply(command, data) {
        switch (command.cmd) {
            case "beginFrame":
                return this.#begin(command);
            case "create":
                return this.#create(command);
            case "set":
                return this.#set(this.#demand(command.id), command);
            case "remove":
                return this.#remove(this.#demand(command.id));
            case "data":
                return this.#setData(this.#demand(command.id), command, data ?? new Uint8Array());
            default:
                throw new TypeError("no such command");
        }
    }

    /** @param {Record<string, any>} command */
    #begin({ frame, keys }) {
        if (Number.isSafeInteger(frame)) this.frame = frame;
        if (this.keys !== (keys === true)) this.isRestructured = true;
        this.keys = keys === true;
    }

    /** @param {unknown} id */
    #demand(id) {
        const item = typeof id === "number" ? this.#items.get(id) : undefined;
        if (!item) throw new RangeError(`no object ${id}`);
        return item;
    }

    /** @param {Record<string, any>} command */
    #create({ id, type, parent: parentId, ...members }) {
        if (!Number.isSafeInteger(id) || id < 1) throw new TypeError(`${id} is no object's number`);
        if (this.#items.has(id)) throw new RangeError(`there is an object ${id} already`);
        if (this.#items.size >= MOST_OBJECTS) throw new RangeError("too many objects");
        const kind = Object.hasOwn(TYPES, type) ? TYPES[type] : null;
        const parent = parentId === undefined ? null : this.#demand(parentId);
        const isStray = parent?.kind === null;
        if (kind && !isStray && kind.parent !== (parent?.family ?? null)) {
            throw new TypeError(`a ${type} cannot stand there`);
        }
        const table = kind?.properties ?? {};
        const properties = { ...defaultsOf(table), ...readProperties(table, members) };
        const item = new Item(id, String(type), isStray ? null : kind, parent, properties);
        item.said = ++numSaid;
        this.#items.set(id, item);
        if (parent) parent.children.push(item);
        else if (kind) this.figures.push(item);
        this.#touch(item, true);
    }

    /** @param {Item} item @param {Record<string, any>} members */
    #set(item, members) {
        if (!item.kind) return;
        const read = readProperties(item.kind.properties, members);
        const before = ownDescription(item);
        Object.assign(item.properties, read);
        if ("keep" in read) this.#forget(item);
        if ("value" in read) item.said = ++numSaid;
        // What is seen nowhere but in the picture may change with each frame.
        this.#touch(item, ownDescription(item) !== before);
    }

    /** @param {Item} item */
    #remove(item) {
        this.#touch(item, true);
        const siblings = item.parent?.children ?? this.figures;
        if (siblings.includes(item)) siblings.splice(siblings.indexOf(item), 1);
        const drop = (/** @type {Item} */ gone) => {
            this.#items.delete(gone.id);
            this.#bytes -= gone.bytes;
            gone.children.forEach(drop);
        };
        drop(item);
    }

    /** @param {Item} item @param {Record<string, any>} command @param {Uint8Array} data */
    #setData(item, { first, count, columns, base = 0 }, data) {
        if (!item.kind) return;
        const isSet = first === 0;
        if (!Number.isSafeInteger(base) || base < 0) throw new TypeError(`${base} elements before`);
        if (!isSet && first !== item.given) {
            throw new RangeError(`element ${first} comes after ${item.given}`);
        }
        const added = readColumns(item, count, columns, data);
        const others = this.#bytes - item.bytes;
        const most = others + data.length + (isSet ? 0 : item.bytes);
        if (most > this.#most) throw new RangeError("too many elements");
        if (isSet || Object.keys(item.columns).length === 0) {
            const known = Object.keys(item.columns).sort().join();
            item.columns = {};
            for (const [name, elements] of added) item.columns[name] = new Column(elements, base);
            ++item.sets;
            item.given = base;
            // With values for colours there may be a colour bar.
            if (Object.keys(item.columns).sort().join() !== known) this.isRestructured = true;
        } else {
            const known = Object.keys(item.columns).sort().join();
            const names = added.map(([name]) => name).sort();
            if (names.join() !== known) throw new TypeError(`columns ${names}, not ${known}`);
            const { keep } = item.properties;
            for (const [name, elements] of added) item.columns[name].append(elements, keep);
        }
        item.given += count;
        this.#forget(item);
        this.#bytes = others + item.bytes;
        this.#touch(item, false);
    }

    /** @param {Item} item */
    #forget(item) {
        // An image is one whole.
        if (item.type === "image") return;
        for (const column of Object.values(item.columns)) column.forget(item.properties.keep);
    }

    /** @param {Item} item @param {boolean} isStructure */
    #touch(item, isStructure) {
        ++item.changes;
        if (isStructure && item.kind) this.isRestructured = true;
        const axes = item.family === "axes" ? item : item.parent;
        if (axes?.family === "axes") this.changed.add(axes.id);
        let figure = item;
        while (figure.parent) figure = figure.parent;
        this.touched.add(figure.id);
    }
}

/** @param {Item} item @param {unknown} count @param {unknown} columns @param {Uint8Array} data
 * @returns {[string, import("./columns.mjs").Elements][]} */
function readColumns({ kind, properties }, count, columns, data) {
    if (!kind || kind.columns.length === 0) throw new TypeError("an object without elements");
    if (!Number.isSafeInteger(count) || Number(count) < 0) throw new TypeError(`${count} elements`);
    if (!Array.isArray(columns)) throw new TypeError("no columns");
    const elements = Number(count);
    if (elements === 0 && columns.length === 0 && data.length === 0) return [];
    const wanted = kind.columns.filter((name) => name !== "x" || !properties.regular);
    const names = new Set(columns.map((column) => column?.[0]));
    const isComplete = wanted.every((name) => names.has(name)) && names.size === columns.length;
    const known = [...wanted, ...kind.optional];
    if (!isComplete || !columns.every((column) => known.includes(column[0]))) {
        throw new TypeError(`columns ${[...names]}, wanted ${wanted}`);
    }
    if (!columns.every(([, type]) => Object.hasOwn(SIZES, type))) {
        throw new TypeError("a column of no type");
    }
    const size = (/** @type {string} */ type) =>
        SIZES[/** @type {ElementType} */ (type)] * elements;
    const total = columns.reduce((sum, [, type]) => sum + size(type), 0);
    if (total !== data.length) throw new RangeError(`${data.length} bytes, not ${total}`);
    let offset = 0;
    return columns.map(([name, type]) => {
        const column = elementsOf(type, data, offset, elements);
        offset += size(type);
        return [name, column];
    });
}

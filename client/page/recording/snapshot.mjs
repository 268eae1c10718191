// All that the page has, as commands and blocks from which a reader can begin.

import { Encoder, sizeOf } from "./format.mjs";
import { textOf } from "./json.mjs";

/** @typedef {import("../worker/scene.mjs").Item} Item */
/** @typedef {Record<string, any>} Command */

/** @type {[Function, string][]} those first that have to lie aligned */
const TYPES = [
    [Float64Array, "f64"],
    [Float32Array, "f32"],
    [Uint8Array, "u8"],
];
/** Of the identifiers of blocks: an engine counts from below. */
const HIGH = 0xffffffff;

/** @param {Item} item @returns {Command} */
function creationOf({ id, type, kind, parent, properties }) {
    const table = kind?.properties ?? {};
    const changed = Object.entries(properties).filter(
        ([name, value]) => value !== table[name]?.[1],
    );
    return {
        cmd: "create",
        id,
        type,
        ...(parent && { parent: parent.id }),
        ...Object.fromEntries(changed),
    };
}

/** The elements that an item has. @param {Item} item @returns {[Command, Uint8Array[]]} */
function elementsOf({ id, columns, firstColumn, given }) {
    const { begin, end } = /** @type {import("../worker/columns.mjs").Column} */ (firstColumn);
    const typed = TYPES.flatMap(([Type, type]) =>
        Object.entries(columns)
            .filter(([, { elements }]) => elements instanceof Type)
            .map(([name, column]) => ({ name, type, column })),
    );
    const pieces = typed.map(({ column: { elements, offset } }) => {
        const { buffer, byteOffset, byteLength } = elements.subarray(begin - offset, end - offset);
        return new Uint8Array(buffer, byteOffset, byteLength);
    });
    const base = given - (end - begin);
    const command = {
        cmd: "data",
        id,
        first: 0,
        count: end - begin,
        columns: typed.map(({ name, type }) => [name, type]),
        ...(base > 0 && { base }),
    };
    return [command, pieces];
}

/** A snapshot's message. @param {import("../worker/scene.mjs").Scene} scene
 * @param {number} sequence the number of the last command that it was made from
 * @param {() => number} nextBlock another number for each @returns {Uint8Array[]} pieces, which are
 *   good until the scene changes */
export function snapshotOf(scene, sequence, nextBlock) {
    const { frame, keys, items } = scene;
    /** @type {Command[]} */
    const commands = [{ cmd: "beginFrame", frame, attempt: 1, whole: true, keys }];
    for (const item of items) commands.push(creationOf(item));
    /** @type {Uint8Array[]} */
    const blocks = [];
    for (const item of items.filter(({ firstColumn }) => firstColumn)) {
        const [command, pieces] = elementsOf(item);
        const low = nextBlock();
        commands.push({ ...command, data: `${low} ${HIGH}` });
        blocks.push(
            new Encoder()
                .u64(8 + sizeOf(pieces))
                .u32(low)
                .u32(HIGH).bytes,
            ...pieces,
        );
    }
    const numbered = commands.map((command, i) => ({ seq: i + 1, ...command }));
    const text = new Encoder().text(textOf({ frame, seq: sequence, commands: numbered }));
    return [text.bytes, ...blocks];
}

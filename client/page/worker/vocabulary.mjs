// The objects of the vocabulary: which properties and columns each type has, and what is taken for
// them. Whatever comes is looked at before anything is changed.

import { VOCABULARY } from "../messages.mjs";

export { VOCABULARY };

/** What a property may be, and its name for an error. @typedef {[(value: any) => boolean, string]} Kind */
/** @typedef {Record<string, [Kind, any]>} Properties each with its default */

/**
 * @typedef {object} Type
 * @property {"figure" | "axes" | null} parent where it stands
 * @property {"figure" | "axes" | "series" | "control"} family
 * @property {string[]} columns
 * @property {string[]} optional columns
 * @property {Properties} properties
 */

const isObject = (/** @type {any} */ value) => typeof value === "object" && !Array.isArray(value);
const isFiniteNumber = (/** @type {any} */ value) => Number.isFinite(value);
const isRange = (/** @type {any} */ value) =>
    Array.isArray(value) &&
    value.length === 2 &&
    value.every(isFiniteNumber) &&
    value[0] < value[1];
const isPair = (/** @type {any} */ value) =>
    Array.isArray(value) && value.length === 2 && value.every((part) => typeof part === "number");
const isTick = (/** @type {any} */ value) =>
    Array.isArray(value) && isFiniteNumber(value[0]) && typeof value[1] === "string";
const isFollow = (/** @type {any} */ value) =>
    isObject(value) && value.follow > 0 && isFiniteNumber(value.follow);

/** @type {Kind} */
const TEXT = [(value) => typeof value === "string", "a text"];
/** @type {Kind} */
const TRUTH = [(value) => typeof value === "boolean", "true or false"];
/** @type {Kind} */
const NUMBER = [(value) => typeof value === "number", "a number"];
/** @type {Kind} */
const FINITE = [isFiniteNumber, "a finite number"];
/** @type {Kind} */
const SIZE = [(value) => isFiniteNumber(value) && value >= 0, "a size"];
/** @type {Kind} */
const SHARE = [(value) => value >= 0 && value <= 1, "a number from 0 to 1"];
/** @type {Kind} */
const COUNT = [(value) => Number.isSafeInteger(value) && value >= 0, "a count"];
/** @type {Kind} */
const COLOR = [(value) => /^#([\da-f]{6}|[\da-f]{8})$/i.test(value), "a colour"];
/** @type {Kind} */
const RANGE = [isRange, "two numbers, the lower one first"];
/** @type {Kind} */
const PAIR = [isPair, "two numbers"];
/** @type {Kind} */
const TEXTS = [(value) => Array.isArray(value) && value.every(TEXT[0]), "texts"];

/** @param {...string} names @returns {Kind} */
const oneOf = (...names) => [(value) => names.includes(value), `one of ${names.join(", ")}`];

const DASH = oneOf("solid", "dashed", "dotted");
const COLOR_MAP = oneOf("viridis", "cividis", "gray", "turbo");

/** Of one axis; it is replaced as a whole. @type {Properties} */
export const AXIS = {
    label: [TEXT, ""],
    unit: [TEXT, ""],
    scale: [oneOf("linear", "log", "time"), "linear"],
    limits: [[(value) => isRange(value) || isFollow(value), "limits"], null],
    ticks: [[(value) => Array.isArray(value) && value.every(isTick), "ticks"], null],
};

/** @type {Properties} */
const SERIES = {
    name: [TEXT, ""],
    visible: [TRUTH, true],
    color: [COLOR, null],
    axis: [oneOf("y", "y2"), "y"],
    keep: [COUNT, 1_000_000],
};
/** @type {Properties} */
const COLORED = {
    limits: [RANGE, null],
    colorMap: [COLOR_MAP, "viridis"],
    colorBar: [TRUTH, true],
};
/** @type {Properties} */
const REGULAR = { regular: [PAIR, null] };

/** @param {Properties} properties @param {string[]} [columns] @param {string[]} [optional]
 * @returns {Type} */
function series(properties, columns = [], optional = []) {
    const rule = columns.includes("x") ? REGULAR : {};
    return {
        parent: "axes",
        family: "series",
        columns,
        optional,
        properties: { ...SERIES, ...rule, ...properties },
    };
}

/** @param {Properties} properties @returns {Type} */
function control(properties) {
    return {
        parent: "figure",
        family: "control",
        columns: [],
        optional: [],
        properties: { label: [TEXT, ""], ...properties },
    };
}

/** @type {Kind} */
const AXIS_OBJECT = [isObject, "an axis"];

/** @type {Record<string, Type>} */
export const TYPES = {
    figure: {
        parent: null,
        family: "figure",
        columns: [],
        optional: [],
        properties: { title: [TEXT, ""], columns: [COUNT, 0] },
    },
    axes: {
        parent: "figure",
        family: "axes",
        columns: [],
        optional: [],
        properties: {
            title: [TEXT, ""],
            x: [AXIS_OBJECT, null],
            y: [AXIS_OBJECT, null],
            y2: [AXIS_OBJECT, null],
            equalAspect: [TRUTH, false],
            linkX: [FINITE, null],
            legend: [TRUTH, null],
            row: [COUNT, null],
            column: [COUNT, null],
            picks: [TRUTH, false],
        },
    },
    line: series(
        {
            width: [SIZE, 1.5],
            steps: [oneOf("before", "after", "middle"), null],
            dash: [DASH, "solid"],
        },
        ["x", "y"],
    ),
    scatter: series({ size: [SIZE, 6], ...COLORED }, ["x", "y"], ["size", "value"]),
    area: series({ base: [FINITE, 0], opacity: [SHARE, 0.3], width: [SIZE, 1.5] }, ["x", "y"]),
    band: series({ opacity: [SHARE, 0.3], width: [SIZE, 1] }, ["x", "low", "high"]),
    bars: series({ base: [FINITE, 0], barWidth: [SIZE, null] }, ["x", "y"]),
    errorBars: series({ cap: [SIZE, 6], width: [SIZE, 1.5] }, ["x", "y", "minus", "plus"]),
    outline: series({ width: [SIZE, 1] }, ["x", "y"]),
    polygon: series({ opacity: [SHARE, 0.3], width: [SIZE, 1] }, ["x", "y"]),
    image: series(
        { rows: [COUNT, 0], columns: [COUNT, 0], x: [RANGE, null], y: [RANGE, null], ...COLORED },
        ["z"],
    ),
    reference: series({
        orientation: [oneOf("horizontal", "vertical"), "horizontal"],
        at: [NUMBER, null],
        span: [PAIR, null],
        opacity: [SHARE, 0.15],
        width: [SIZE, 1.5],
        dash: [DASH, "dashed"],
    }),
    text: series({
        text: [TEXT, ""],
        at: [PAIR, null],
        anchor: [oneOf("left", "center", "right"), "left"],
        inAxes: [TRUTH, false],
        fontSize: [SIZE, 12],
    }),
    button: control({}),
    slider: control({
        low: [FINITE, 0],
        high: [FINITE, 1],
        step: [SIZE, null],
        value: [FINITE, 0],
    }),
    number: control({ low: [FINITE, null], high: [FINITE, null], value: [FINITE, 0] }),
    choice: control({ options: [TEXTS, []], value: [COUNT, 0] }),
};

/** Those of the members that the table names; `null` is the default. Throws for a value that is not
 * of its kind. @param {Properties} table @param {Record<string, any>} members
 * @returns {Record<string, any>} */
export function readProperties(table, members) {
    /** @type {Record<string, any>} */
    const read = {};
    for (const [name, value] of Object.entries(members)) {
        if (!Object.hasOwn(table, name)) continue;
        const [[isOfKind, kind], otherwise] = table[name];
        if (value !== null && !isOfKind(value)) throw new TypeError(`"${name}" is not ${kind}`);
        read[name] = value ?? otherwise;
        if (isOfKind === isObject && value !== null) read[name] = readAxis(value);
    }
    return read;
}

/** @param {Record<string, any>} members */
function readAxis(members) {
    return { ...defaultsOf(AXIS), ...readProperties(AXIS, members) };
}

/** @param {Properties} table @returns {Record<string, any>} */
export function defaultsOf(table) {
    return Object.fromEntries(Object.entries(table).map(([name, [, value]]) => [name, value]));
}

const PLAIN_AXIS = defaultsOf(AXIS);

/** The properties of one of its axes. @param {import("./scene.mjs").Item} axes
 * @param {"x" | "y" | "y2"} which */
export function axisOf(axes, which) {
    return axes.properties[which] ?? PLAIN_AXIS;
}

// Ticks for the numbers at hand: as many as there is room for, so that no text lies on another one.

import { fractionOf } from "./scale.mjs";

/**
 * @typedef {object} Tick
 * @property {number} at from 0, where the axis begins, to 1
 * @property {string} text empty: a line without a text. A second line stands behind "\n"
 */

/**
 * @typedef {object} Ticks
 * @property {Tick[]} ticks ascending
 * @property {string} note what all numbers have in common: a power of ten, an offset, "UTC"
 */

/**
 * @typedef {object} Room
 * @property {number} pixels how long the axis is
 * @property {(text: string) => number} extent pixels that a text takes along the axis
 * @property {number} gap pixels that two texts lie apart at least
 * @property {number} [lines] of text that a tick may have
 */

/** @typedef {import("./scale.mjs").Scale} Scale */
/** @typedef {import("./messages.mjs").Range} Range */

const MANTISSAS = [1, 2, 2.5, 5];
/** Decimal digits that a double holds for certain. */
const DIGITS = 15;
/** More digits than this are taken out of the ticks, as an offset. */
const MOST_DIGITS = 6;
/** Numbers from the second to the first are written as they are. */
const LARGEST_PLAIN = 1e6;
const SMALLEST_PLAIN = 1e-3;
/** Decades of a logarithmic axis, below which its ticks are those of a linear one; from which on only
 * powers of ten have a text; and from which on there are no others. */
const FEW_DECADES = 1;
const MANY_DECADES = 3.5;
const MOST_MULTIPLES = 6;

/** @param {number} exponent */
export function superscript(exponent) {
    const digits = "⁰¹²³⁴⁵⁶⁷⁸⁹";
    const text = [...String(Math.abs(exponent))].map((digit) => digits[Number(digit)]).join("");
    return (exponent < 0 ? "⁻" : "") + text;
}

/** @param {string} text */
const withMinus = (text) => text.replace("-", "−");

/** A number to be read, with so many significant digits. @param {number} value @param {number} digits */
export function numberText(value, digits = 6) {
    if (!Number.isFinite(value)) return Number.isNaN(value) ? "–" : withMinus(String(value));
    const size = Math.abs(value);
    if (size !== 0 && (size >= LARGEST_PLAIN || size < SMALLEST_PLAIN)) {
        const [mantissa, exponent] = value.toExponential(digits - 1).split("e");
        const power = `10${superscript(Number(exponent))}`;
        const short = String(Number(mantissa));
        return withMinus(
            Math.abs(Number(short)) === 1 ? short.replace("1", power) : `${short}×${power}`,
        );
    }
    return withMinus(String(Number(value.toPrecision(digits))));
}

/** The offset of ticks, exactly. @param {number} value */
function offsetText(value) {
    const plain = String(Math.abs(value));
    const [mantissa, exponent] = Math.abs(value).toExponential().split("e");
    const power = `10${superscript(Number(exponent))}`;
    const short = mantissa === "1" ? power : `${mantissa}×${power}`;
    const text = short.length < plain.length ? short : plain;
    return (value < 0 ? "−" : "+") + text;
}

/** @typedef {{mantissa: number, exponent: number}} Step */

/** Steps from the finest that could be of use upwards. @param {number} least @returns {Generator<Step>} */
function* stepsFrom(least) {
    for (let exponent = Math.floor(Math.log10(least)) - 1; exponent < 310; ++exponent) {
        for (const mantissa of MANTISSAS) {
            if (mantissa * 10 ** exponent >= least) yield { mantissa, exponent };
        }
    }
}

/** @param {number} low @param {number} high @param {Step} step */
function linearTicks(low, high, { mantissa, exponent }) {
    const span = high - low;
    const size = mantissa * 10 ** exponent;
    const largest = Math.max(Math.abs(low), Math.abs(high));
    let base = 0;
    if (largest / size >= 10 ** MOST_DIGITS) {
        const unit = 10 ** Math.ceil(Math.log10(span));
        base = (low < 0 ? Math.ceil(high / unit) : Math.floor(low / unit)) * unit;
    }
    // Relative to the base: the multiples of a small step are exact there.
    const from = low - base;
    const first = Math.ceil(from / size - 1e-9);
    const last = Math.floor((from + span) / size + 1e-9);
    const greatest = Math.max(Math.abs(first), Math.abs(last)) * size;
    const isPlain = greatest < LARGEST_PLAIN && size >= SMALLEST_PLAIN;
    const power =
        isPlain || greatest === 0 ? 0 : 3 * Math.floor(Math.log10(greatest * 1.000001) / 3);
    const shift = exponent - power;
    const decimals = Math.max(0, -shift + (mantissa === 2.5 ? 1 : 0));
    const ticks = [];
    for (let i = first; i <= last; ++i) {
        const text = (i * mantissa * 10 ** shift).toFixed(decimals);
        ticks.push({ at: (i * size - from) / span, text: withMinus(i === 0 ? "0" : text) });
    }
    const notes = [power ? `×10${superscript(power)}` : "", base ? offsetText(base) : ""];
    return { ticks, note: notes.filter((note) => note).join(" ") };
}

/** Whether no text lies on another one. @param {Tick[]} ticks @param {Room} room */
function fits(ticks, { pixels, extent, gap }) {
    let end = -Infinity;
    for (const { at, text } of ticks) {
        if (text === "") continue;
        const half = extent(text) / 2;
        if (at * pixels - half < end + gap) return end === -Infinity;
        end = at * pixels + half;
    }
    return true;
}

/** Without the texts that lie on the one before. @param {Tick[]} ticks @param {Room} room */
function thinned(ticks, { pixels, extent, gap }) {
    let end = -Infinity;
    return ticks.map((tick) => {
        const half = extent(tick.text) / 2;
        if (tick.text === "" || tick.at * pixels - half < end + gap) return { ...tick, text: "" };
        end = tick.at * pixels + half;
        return tick;
    });
}

/** @param {number} low @param {number} high @param {Room} room @returns {Ticks} */
function linear(low, high, room) {
    const finest = Math.max(Math.abs(low), Math.abs(high)) * 10 ** -DIGITS;
    const least = Math.max(((high - low) * room.gap) / room.pixels, finest, Number.MIN_VALUE * 1e4);
    for (const step of stepsFrom(least)) {
        if (((high - low) / (step.mantissa * 10 ** step.exponent)) * room.gap > room.pixels) {
            continue;
        }
        const chosen = linearTicks(low, high, step);
        if (fits(chosen.ticks, room)) return chosen;
    }
    return { ticks: [], note: "" };
}

/** @param {number} exponent @param {boolean} isPlain */
function decadeText(exponent, isPlain) {
    return isPlain ? String(Number(`1e${exponent}`)) : `10${superscript(exponent)}`;
}

/** Powers of ten, and their multiples where they are not too many.
 * @param {number} from the logarithm of the lowest value @param {number} decades
 * @param {number} every so many have a text @param {number[]} named digits that have one, too
 * @returns {Tick[]} */
function powerTicks(from, decades, every, named) {
    const first = Math.floor(from);
    const last = Math.ceil(from + decades);
    const isPlain = first >= -4 && last <= 5;
    const digits = every === 1 && decades < MOST_MULTIPLES ? [1, 2, 3, 4, 5, 6, 7, 8, 9] : [1];
    const ticks = [];
    for (let exponent = first; exponent <= last; ++exponent) {
        if (exponent % every !== 0) continue;
        for (const digit of digits) {
            const text = named.includes(digit) ? numberText(Number(`${digit}e${exponent}`)) : "";
            const at = (exponent + Math.log10(digit) - from) / decades;
            ticks.push({ at, text: digit === 1 ? decadeText(exponent, isPlain) : text });
        }
    }
    return ticks.filter(({ at }) => at >= -1e-9 && at <= 1 + 1e-9);
}

/** @param {number} low above 0 @param {number} high @param {Room} room @returns {Ticks} */
function logarithmic(low, high, room) {
    const from = Math.log10(low);
    const decades = Math.log10(high) - from;
    if (decades < FEW_DECADES) {
        const { ticks, note } = linear(low, high, { ...room, gap: room.gap * 2 });
        const moved = ticks.map(({ at, text }) => {
            const value = low + at * (high - low);
            return { at: (Math.log10(value) - from) / decades, text };
        });
        return { ticks: thinned(moved, room), note };
    }
    for (const named of decades < MANY_DECADES ? [[2, 5], [3]] : []) {
        const ticks = powerTicks(from, decades, 1, named);
        if (fits(ticks, room)) return { ticks, note: "" };
    }
    for (let every = 1; every < decades; ++every) {
        const ticks = powerTicks(from, decades, every, []);
        if (fits(ticks, room)) return { ticks, note: "" };
    }
    return { ticks: thinned(powerTicks(from, decades, 1, [2, 5]), room), note: "" };
}

const SECOND = 1;
const MINUTE = 60;
const HOUR = 3600;
const DAY = 86400;
const MONTH = 30.44 * DAY;
const YEAR = 365.25 * DAY;
const TIME_STEPS = [
    ...[1e-6, 1e-5, 1e-4, 1e-3, 1e-2, 1e-1].flatMap((size) => [size, 2 * size, 5 * size]),
    ...[1, 2, 5, 10, 15, 30].map((n) => n * SECOND),
    ...[1, 2, 5, 10, 15, 30].map((n) => n * MINUTE),
    ...[1, 2, 3, 6, 12].map((n) => n * HOUR),
    ...[1, 2, 4, 7, 14].map((n) => n * DAY),
];
const MONTHS = "Jan Feb Mar Apr May Jun Jul Aug Sep Oct Nov Dec".split(" ");
/** Seconds of the last moment that a `Date` knows. */
const LAST_DATE = 8.64e12;

/** @param {number} value @param {number} length */
const padded = (value, length = 2) => String(value).padStart(length, "0");

/** @param {Date} date */
function dayText(date) {
    return `${padded(date.getUTCFullYear(), 4)}-${padded(date.getUTCMonth() + 1)}-${padded(date.getUTCDate())}`;
}

/** @param {number} seconds since 1970 @param {number} decimals of a second; below 0: minutes */
function clockText(seconds, decimals) {
    const day = ((seconds % DAY) + DAY) % DAY;
    const unit = 10 ** Math.max(0, decimals);
    const whole = Math.round(day * unit);
    const left = Math.floor(whole / unit);
    const text = `${padded(Math.floor(left / HOUR) % 24)}:${padded(Math.floor((left % HOUR) / MINUTE))}`;
    if (decimals < 0) return text;
    const fraction = decimals > 0 ? `.${padded(whole % unit, decimals)}` : "";
    return `${text}:${padded(left % MINUTE)}${fraction}`;
}

/** A moment to be read, in UTC. @param {number} seconds since 1970 @param {number} step that matters */
export function momentText(seconds, step) {
    if (!(Math.abs(seconds) < LAST_DATE)) return numberText(seconds);
    const decimals = step >= 1 ? 0 : Math.min(6, Math.ceil(-Math.log10(step)));
    return `${dayText(new Date(Math.floor(seconds) * 1000))} ${clockText(seconds, decimals)}`;
}

/** Every so many months, or years. @param {number} low @param {number} high @param {number} months */
function monthTicks(low, high, months) {
    const ticks = [];
    const begin = new Date(low * 1000);
    const first = begin.getUTCFullYear() * 12 + begin.getUTCMonth();
    for (let month = Math.floor(first / months) * months; ; month += months) {
        const date = new Date(0);
        date.setUTCFullYear(Math.floor(month / 12), ((month % 12) + 12) % 12, 1);
        const seconds = date.getTime() / 1000;
        if (!(seconds <= high)) return ticks;
        if (seconds < low) continue;
        const year = String(date.getUTCFullYear());
        const text = months % 12 === 0 ? year : MONTHS[date.getUTCMonth()];
        ticks.push({
            at: (seconds - low) / (high - low),
            text,
            context: months % 12 === 0 ? "" : year,
        });
    }
}

/** @param {number} low @param {number} high @param {number} step in seconds, at most days */
function clockTicks(low, high, step) {
    const ticks = [];
    const decimals = step < 1 ? Math.ceil(-Math.log10(step) - 1e-9) : step < MINUTE ? 0 : -1;
    // Relative to a day: small steps are exact there.
    const base = Math.floor(low / DAY) * DAY;
    for (let i = Math.ceil((low - base) / step - 1e-9); base + i * step <= high; ++i) {
        const seconds = base + i * step;
        const date = new Date(Math.floor(seconds + step * 1e-6) * 1000);
        const text =
            step < DAY
                ? clockText(seconds, decimals)
                : `${date.getUTCDate()} ${MONTHS[date.getUTCMonth()]}`;
        const context = step < DAY ? dayText(date) : String(date.getUTCFullYear());
        // Doubles of seconds are coarse: the last one may lie a little beyond.
        ticks.push({ at: Math.min(1, (i * step - (low - base)) / (high - low)), text, context });
    }
    return ticks;
}

/** Each context once, where it begins and where there is room.
 * @param {(Tick & {context: string})[]} ticks @param {Room} room @returns {Tick[]} */
function withContext(ticks, { pixels, extent, gap, lines = 2 }) {
    let said = "";
    let end = -Infinity;
    return ticks.map(({ at, text, context }) => {
        const half = extent(context) / 2;
        if (lines < 2 || context === said || context === "" || at * pixels - half < end + gap) {
            return { at, text };
        }
        said = context;
        end = at * pixels + half;
        return { at, text: `${text}\n${context}` };
    });
}

/** @param {number} low in seconds since 1970 @param {number} high @param {Room} room @returns {Ticks} */
function temporal(low, high, room) {
    if (Math.abs(low) >= LAST_DATE || Math.abs(high) >= LAST_DATE) return linear(low, high, room);
    const least = ((high - low) * room.gap) / room.pixels;
    for (const step of TIME_STEPS) {
        if (step < least || (high - low) / step > 200) continue;
        const ticks = clockTicks(low, high, step);
        if (fits(ticks, room)) return { ticks: withContext(ticks, room), note: "UTC" };
    }
    const years = Array.from({ length: 8 }, (_, k) =>
        [1, 2, 5].map((n) => 12 * n * 10 ** k),
    ).flat();
    for (const months of [1, 2, 3, 6, ...years]) {
        if ((months * MONTH * room.pixels) / (high - low) < room.gap) continue;
        const ticks = monthTicks(low, high, months);
        if (fits(ticks, room)) return { ticks: withContext(ticks, room), note: "UTC" };
    }
    return linear(low / YEAR, high / YEAR, room);
}

/** The engine's own ticks, as far as there is room. @param {[number, string][]} given
 * @param {Range} limits @param {Scale} scale @param {Room} room @returns {Ticks} */
function chosenByEngine(given, limits, scale, room) {
    const ticks = given
        .map(([value, text]) => ({ at: fractionOf(value, limits, scale), text }))
        .filter(({ at }) => at >= 0 && at <= 1)
        .sort((a, b) => a.at - b.at);
    return { ticks: thinned(ticks, room), note: "" };
}

/** What stands at an axis with these limits. @param {Range} limits @param {Scale} scale
 * @param {Room} room @param {[number, string][] | null} given the engine's own @returns {Ticks} */
export function chooseTicks([low, high], scale, room, given = null) {
    if (!(low < high) || !(room.pixels > 0)) return { ticks: [], note: "" };
    if (given) return chosenByEngine(given, [low, high], scale, room);
    if (scale === "time") return temporal(low, high, room);
    if (scale === "log" && low > 0) return logarithmic(low, high, room);
    return linear(low, high, room);
}

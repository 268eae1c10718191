// How long frames took on each part of their way, from the stamps that they got on it.
//
// A difference of two stamps of one clock is a time. One between the engine's clock and the page's
// has the difference of the clocks in it, which nobody knows. If a message came before it was sent,
// they differ; if none did, and both ways are known, they agree to within the fastest message. Where
// they differ, or only one way is known, each way is counted from the fastest one seen: what is left
// is by how much it took longer, whatever the clocks say. This is the packet delay variation of
// RFC 5481, section 4.2. All pages' clocks are taken for one, and for one that does not drift.
// A page that has measured how far the clocks are apart has its stamps by the engine's clock: they agree
// to within what that is uncertain by, unless a message came before it was sent by more than that.

/** @typedef {"serverSend" | "clientReceive" | "clientPaint" | "clientSend" | "serverReceive"} Stamp */
/** Of frames: times in milliseconds, stamps in microseconds since 1970, 0: there is none.
 * @typedef {Record<"time" | Stamp, Float64Array>} Columns */
/** @typedef {{name: string, from: Stamp, to: Stamp}} Part */
/** In milliseconds; not a number: of no frame. How many of all frames took at most so long.
 * @typedef {{count: number, half: number, most: number, nearlyAll: number, all: number}} Summary */
/** What is taken off of each way, in milliseconds; "within": to what the clocks agree, if nothing is.
 * @typedef {{isShifted: boolean, to: number, back: number, within: number}} Clocks */

/** In the order of a frame's way. @type {Stamp[]} */
export const STAMPS = ["serverSend", "clientReceive", "clientPaint", "clientSend", "serverReceive"];

/** @type {Record<"to" | "queue" | "painting" | "page" | "back" | "whole", Part>} */
const PARTS = {
    to: { name: "Engine to page", from: "serverSend", to: "clientReceive" },
    queue: { name: "Page’s queue", from: "clientReceive", to: "clientPaint" },
    painting: { name: "Painting", from: "clientPaint", to: "clientSend" },
    page: { name: "In the page", from: "clientReceive", to: "clientSend" },
    back: { name: "Way back", from: "clientSend", to: "serverReceive" },
    whole: { name: "Whole, by the engine’s clock", from: "serverSend", to: "serverReceive" },
};

const US_PER_MS = 1000;
/** Milliseconds to which browsers tell the time, at the worst: a message that comes before it was sent
 * by less has taken no time that can be told. */
const RESOLUTION = 1;

/** @param {Columns} columns @param {Part} part @returns {Float64Array} milliseconds; not a number
 * where a stamp is missing */
function timesOf(columns, { from, to }) {
    const begin = columns[from];
    const end = columns[to];
    return begin.map((stamp, i) => (stamp > 0 && end[i] > 0 ? (end[i] - stamp) / US_PER_MS : NaN));
}

/** @param {Float64Array} times @returns {number} not a number: there is none */
function leastOf(times) {
    return times.reduce((least, time) => (time < least || Number.isNaN(least) ? time : least), NaN);
}

/** Of a way between clocks. @param {Float64Array} times @param {number} shift */
function shifted(times, shift) {
    return times.map((time) => Math.max(time - shift, 0));
}

/** What cannot be, a time below 0, is missing. @param {Float64Array} times */
function possible(times) {
    return times.map((time) => (time >= 0 ? time : NaN));
}

/** By nearest rank: so many of the frames took at most as long. @param {Float64Array} times
 * @returns {Summary} */
export function summaryOf(times) {
    const known = times.filter((time) => !Number.isNaN(time)).sort();
    const at = (/** @type {number} */ percent) =>
        known[Math.max(Math.ceil((percent / 100) * known.length) - 1, 0)] ?? NaN;
    return { count: known.length, half: at(50), most: at(90), nearlyAll: at(99), all: at(100) };
}

/** @param {number} to the least of the way there, in milliseconds @param {number} back of the way back
 * @param {number | null} measured within what the clocks agree, if that is known
 * @returns {Clocks} */
export function clocksOf(to, back, measured = null) {
    const least = -RESOLUTION - (measured ?? 0);
    if (measured !== null && to >= least && !(back < least)) {
        return { isShifted: false, to: 0, back: 0, within: measured };
    }
    const isShifted = !(to >= -RESOLUTION && back >= -RESOLUTION);
    if (!isShifted) {
        return { isShifted, to: 0, back: 0, within: Math.max(Math.abs(to), Math.abs(back)) };
    }
    return { isShifted, to: to || 0, back: back || 0, within: NaN };
}

/** What frames took. @param {Columns} columns
 * @param {import("../engine_clock.mjs").Clock | null} [clock] what the page has measured */
export function latencyOf(columns, clock = null) {
    const to = timesOf(columns, PARTS.to);
    const back = timesOf(columns, PARTS.back);
    const measured = clock && (Math.abs(clock.ahead - clock.shift) + clock.uncertainty) / US_PER_MS;
    const clocks = clocksOf(leastOf(to), leastOf(back), measured);
    const part = (/** @type {Part} */ { name }, /** @type {Float64Array} */ times) => {
        return { name, times, summary: summaryOf(times) };
    };
    const own = (/** @type {Part} */ one) => part(one, possible(timesOf(columns, one)));
    const split = [own(PARTS.queue), own(PARTS.painting)];
    // Not every page says when it began to paint.
    const isSplit = split.some(({ summary }) => summary.count > 0);
    const parts = [
        part(PARTS.to, shifted(to, clocks.to)),
        ...(isSplit ? split : [own(PARTS.page)]),
        part(PARTS.back, shifted(back, clocks.back)),
    ].filter(({ summary }) => summary.count > 0);
    const whole = own(PARTS.whole);
    return { time: columns.time, parts, whole, clocks, late: lateOf(columns) };
}

/** When frames were late. @param {Columns} columns @returns {Float64Array} */
function lateOf({ time, clientSend }) {
    return time.filter((_, i) => clientSend[i] === 0);
}

/** For a picture that has room for so many frames: of each stretch of the time its slowest one, the
 * parts one upon the other.
 * @param {{time: Float64Array, parts: {times: Float64Array}[]}} latency @param {number} room
 * @returns {{time: number[], sums: number[][]}} a sum for each part, with those before it */
export function stackOf({ time, parts }, room) {
    /** @type {(number | undefined)[]} */
    const slowest = Array(room).fill(undefined);
    const sums = parts.map(() => new Float64Array(time.length));
    for (let i = 0, k = 0; i < time.length; ++i) {
        let sum = 0;
        for (k = 0; k < parts.length; ++k) sums[k][i] = sum += parts[k].times[i] || 0;
    }
    const total = sums.at(-1) ?? time;
    const [begin, end] = rangeOf(time);
    for (let i = 0; i < time.length; ++i) {
        if (parts.every(({ times }) => Number.isNaN(times[i]))) continue;
        const at = Math.min(Math.floor(((time[i] - begin) / (end - begin || 1)) * room), room - 1);
        const before = slowest[at];
        if (before === undefined || total[i] > total[before]) slowest[at] = i;
    }
    const shown = slowest.filter((i) => i !== undefined);
    return {
        time: shown.map((i) => time[i]),
        sums: sums.map((column) => shown.map((i) => column[i])),
    };
}

/** @param {Float64Array} time @returns {[number, number]} */
function rangeOf(time) {
    let [low = 0] = time;
    let high = low;
    for (const one of time) {
        low = Math.min(low, one);
        high = Math.max(high, one);
    }
    return [low, high];
}

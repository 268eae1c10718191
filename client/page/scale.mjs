// Where values lie along an axis, from 0 where it begins to 1 where it ends.

/** @typedef {"linear" | "log" | "time"} Scale */
/** @typedef {import("./messages.mjs").Range} Range */

/** @param {number} value @param {Scale} scale */
const place = (value, scale) => (scale === "log" ? Math.log10(value) : value);

/** @param {number} value @param {Range} limits @param {Scale} scale */
export function fractionOf(value, [low, high], scale) {
    const from = place(low, scale);
    return (place(value, scale) - from) / (place(high, scale) - from);
}

/** @param {number} fraction @param {Range} limits @param {Scale} scale */
export function valueAt(fraction, [low, high], scale) {
    if (scale === "log") return low * (high / low) ** fraction;
    return low + fraction * (high - low);
}

/** The limits that lie at these fractions of others. @param {Range} limits @param {Scale} scale
 * @param {number} from @param {number} to @returns {Range} */
export function part(limits, scale, from, to) {
    return [valueAt(from, limits, scale), valueAt(to, limits, scale)];
}

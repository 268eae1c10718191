// Two recordings beside each other: their objects are numbered so that none has another's number, and
// what is the same in both is looked at together.

/** What links axes. Axes of the page, and objects of the worker's.
 * @typedef {object} Linkable
 * @property {number} id
 * @property {number | null} linkX
 * @property {{scale: string} | null} x null: linear
 * @property {{scale: string} | null} y
 * @property {{scale: string} | null} y2
 */

/** Where the numbers of the second side begin. */
export const SIDE = 2 ** 50;
/** How many recordings are shown at a time. */
export const MOST_SIDES = 2;

/** @param {number} id of an object @returns {number} the side on which it is shown, from 0 on */
export const sideOf = (id) => Math.floor(id / SIDE);
/** @param {number} id of an object @returns {number} the engine's */
export const ownNumber = (id) => id % SIDE;

/** What somebody who looks at axes sees of others: the same x where an engine links them; on the
 * other side of the same axes all, as far as they have the same scale.
 * @template {Partial<import("./navigation.mjs").View>} V
 * @param {Linkable} axes @param {Linkable} other @param {V} view of the axes
 * @returns {Partial<V> | null} null: what was seen before */
export function linkedView(axes, other, view) {
    if (axes.id === other.id) return null;
    const isSameX = axes.linkX !== null && axes.linkX === other.linkX;
    const isSameSide = sideOf(axes.id) === sideOf(other.id);
    const isSame = !isSameSide && ownNumber(axes.id) === ownNumber(other.id);
    const scaleOf = (/** @type {Linkable} */ one, /** @type {"x" | "y" | "y2"} */ which) =>
        one[which]?.scale ?? "linear";
    const isShared = (/** @type {"x" | "y" | "y2"} */ which) => {
        if (!isSame && !(isSameX && which === "x")) return false;
        if (isSameSide || view[which] === null) return true;
        const scale = scaleOf(axes, which);
        // Two runs have no dates in common.
        return scale === scaleOf(other, which) && scale !== "time";
    };
    const names = /** @type {("x" | "y" | "y2")[]} */ (["x", "y", "y2"]);
    const shared = names.filter((which) => view[which] !== undefined && isShared(which));
    if (shared.length === 0) return null;
    return /** @type {Partial<V>} */ (Object.fromEntries(shared.map((one) => [one, view[one]])));
}

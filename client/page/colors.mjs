// Colours of series, for both grounds: told apart by those who see colours less, too.

/** A series without a colour of its own gets the next one. Each has a contrast of 3:1 and more
 * against the ground, and neighbours differ in lightness as well. */
const CYCLES = {
    light: ["#0068ad", "#c65200", "#00755a", "#a8246f", "#5b8fd9", "#8a6a00", "#4b2f8f", "#6b7076"],
    dark: ["#5ab4f0", "#f08b3c", "#2fc299", "#f09ac8", "#7c8dff", "#e3c64a", "#c3a6ff", "#a3a9b0"],
};

/** The colour of a value that is not a number: in none of the colour maps. */
export const MISSING = "#f0a0d8";

/** @param {number} index from 0 @param {boolean} dark whether the ground is
 * @returns {string} "#rrggbb" */
export function cycleColor(index, dark) {
    const cycle = dark ? CYCLES.dark : CYCLES.light;
    return cycle[index % cycle.length];
}

/** @param {string} color "#rrggbb" or "#rrggbbaa"
 * @returns {[number, number, number, number]} red, green, blue and opacity, from 0 to 255 */
export function channelsOf(color) {
    const part = (/** @type {number} */ at) => Number.parseInt(color.slice(at, at + 2), 16);
    return [part(1), part(3), part(5), color.length > 7 ? part(7) : 255];
}

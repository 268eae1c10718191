// Colours of series, for both grounds: told apart by those who see colours less, too.

/**
 * A series without a colour of its own gets the next one. Of each scheme's colours any two are at
 * least 12 apart by CIEDE2000 (Sharma, Wu and Dalal, 2005), as they are and as they look without red
 * or green (Viénot, Brettel and Mollon, 1999, and Machado, Oliveira and Fernandes, 2009, in full), and
 * 10 without blue (Machado); by the same measure Okabe and Ito's eight reach 11.6. Each has a contrast
 * of 3:1 and more against the ground. A test computes all that.
 */
const CYCLES = {
    light: ["#0068ad", "#cd690a", "#399c78", "#941a4f", "#508af9", "#744f02", "#421986", "#6d747d"],
    dark: ["#5ab4f0", "#d0601c", "#3ae6b0", "#d17c9b", "#687bff", "#e0c549", "#8b63a6", "#bfc6cf"],
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

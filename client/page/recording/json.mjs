// JSON in which not-a-number and infinities stand as bare words, as an engine writes it.

// Chance makes sure that no text says the same.
const MARK = `number ${Math.random()} `;
const MARKED = new RegExp(`"${MARK}(NaN|-?Infinity)"`, "g");

/** @param {any} value @returns {string} */
export function textOf(value) {
    let isPlain = true;
    const text = JSON.stringify(value, (_, part) => {
        if (typeof part !== "number" || Number.isFinite(part)) return part;
        isPlain = false;
        return `${MARK}${part}`;
    });
    return isPlain ? text : text.replace(MARKED, "$1");
}

// How long texts are in the font of axes.

export const FONT = "12px system-ui, sans-serif";
/** CSS pixels from one line of text to the next. */
export const LINE_HEIGHT = 15;
const MOST_KNOWN = 1000;

/** @type {OffscreenCanvasRenderingContext2D | null} */
let context = null;
/** Remembered: ticks are chosen in each frame. @type {Map<string, number>} */
const known = new Map();

/** CSS pixels of the longest of its lines. @param {string} text @returns {number} */
export function textWidth(text) {
    const found = known.get(text);
    if (found !== undefined) return found;
    if (known.size >= MOST_KNOWN) {
        known.clear();
        // Chromium keeps the shape of each text until the canvas shows a picture, which this one
        // never does.
        context = null;
    }
    context ??= new OffscreenCanvas(1, 1).getContext("2d");
    if (!context) return 0;
    context.font = FONT;
    let width = 0;
    for (const line of text.split("\n")) width = Math.max(width, context.measureText(line).width);
    known.set(text, width);
    return width;
}

/** A text that is cut off where there is no more room. @param {string} text @param {number} room */
export function cutText(text, room) {
    if (textWidth(text) <= room) return text;
    let length = text.length;
    while (length > 0 && textWidth(`${text.slice(0, length)}…`) > room) --length;
    return length > 0 ? `${text.slice(0, length).trimEnd()}…` : "";
}

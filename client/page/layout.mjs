// Where figures and axes go.

/** Width by height that a figure has best. */
const BEST_RATIO = 1.6;
/** CSS pixels that a figure's cell has at least. */
export const LEAST = { width: 320, height: 240 };
/** CSS pixels of width, below which axes are not put beside each other. */
const NARROWEST = 200;

/**
 * @typedef {object} Grid
 * @property {number} columns
 * @property {number} rows
 */

/** How far a cell is from the best one; a cell that is too small is worse than any that is not.
 * @param {number} width @param {number} height */
function badness(width, height) {
    const small = Math.max(0, LEAST.width - width) + Math.max(0, LEAST.height - height);
    return Math.abs(Math.log(width / height / BEST_RATIO)) + small;
}

/** The grid of so many cells in this room; cells that stay empty count against it.
 * @param {number} count @param {{width: number, height: number}} room @param {number} [columns]
 *   chosen already; 0: not @returns {Grid} */
export function gridOf(count, { width, height }, columns = 0) {
    const cells = Math.max(1, count);
    let best = columns;
    let least = Infinity;
    for (let tried = 1; columns === 0 && tried <= cells; ++tried) {
        const rows = Math.ceil(cells / tried);
        const empty = (rows * tried - cells) / cells;
        const worth = badness(width / tried, height / rows) + empty;
        if (worth < least) [best, least] = [tried, worth];
    }
    return { columns: best, rows: Math.ceil(cells / best) };
}

/** @typedef {{row: number | null, column: number | null}} Wanted */

/** Where axes go: where the engine wants them, else into the first free cell behind the last. Where
 * the room is too narrow for that, one behind the other.
 * @param {Wanted[]} wanted @param {{width: number, height: number}} room
 * @param {number} columns that the engine wants; 0: as many as go well */
export function placeAxes(wanted, room, columns) {
    const placed = Math.max(0, ...wanted.map(({ column }) => (column ?? -1) + 1));
    const most = Math.max(1, Math.floor(room.width / NARROWEST));
    const asked = columns === 0 && placed === 0 ? 0 : Math.max(columns, placed);
    const grid = gridOf(wanted.length, room, Math.min(asked, most));
    const cells = cellsOf(wanted, grid.columns, asked > most);
    const rows = Math.max(1, ...cells.map(({ row }) => row + 1));
    return { columns: grid.columns, rows, cells };
}

/** @param {Wanted[]} wanted @param {number} columns @param {boolean} inOrder not where wanted */
function cellsOf(wanted, columns, inOrder) {
    const cellAt = (/** @type {number} */ i) => ({
        row: Math.floor(i / columns),
        column: i % columns,
    });
    const key = (/** @type {Wanted} */ { row, column }) => `${row} ${column}`;
    if (inOrder) return wanted.map((_, i) => cellAt(i));
    const taken = new Set(wanted.map(key));
    let next = 0;
    return wanted.map(({ row, column }) => {
        if (row !== null && column !== null) return { row, column };
        while (taken.has(key(cellAt(next)))) ++next;
        return cellAt(next++);
    });
}

// Where the elements of a series lie: its part in automatic limits.

/** @typedef {import("./scene.mjs").Item} Item */
/** @typedef {import("./columns.mjs").Places} Places */
/** @typedef {import("./columns.mjs").Column} Column */
/** @typedef {[number, number]} Range */

/** Low above high: nothing. The margins are shares of the range, below and above it.
 * @typedef {{range: Range, margin: [number, number]}} Extent */

/** @typedef {{x: (isLog: boolean) => Extent, y: (x: Range, isLog: boolean) => Extent}} Extents */

const NOTHING = /** @type {Range} */ ([Infinity, -Infinity]);
const NO_MARGIN = /** @type {[number, number]} */ ([0, 0]);
const X_MARGIN = 0.03;
const Y_MARGIN = 0.05;
/** Types whose marks reach beyond their places. */
const WITH_X_MARGIN = ["scatter", "errorBars", "outline", "polygon", "text", "bars"];
/** Of the least distance of two bars. */
const BAR_SHARE = 0.8;

/** @param {boolean} isLog */
const leastOf = (isLog) => (isLog ? 0 : -Infinity);

/** @param {Range} a @param {Range} b @returns {Range} */
const union = (a, b) => [Math.min(a[0], b[0]), Math.max(a[1], b[1])];

/** @param {(number | null)[]} values @param {boolean} isLog @returns {Range} */
function rangeOf(values, isLog) {
    const usable = values.filter(
        (value) => value !== null && Number.isFinite(value) && value > leastOf(isLog),
    );
    const numbers = /** @type {number[]} */ (usable);
    return [Math.min(...numbers), Math.max(...numbers)];
}

/** @param {Range} inner @param {Range} outer */
const isWithin = (inner, outer) => inner[0] >= outer[0] && inner[1] <= outer[1];

/** @param {Item} series @returns {Extents} */
export function extentOf(series) {
    if (series.type === "image") return imageExtents(series);
    if (series.type === "reference") return referenceExtents(series);
    if (series.type === "text") return textExtents(series);
    return elementExtents(series);
}

/** @param {Item} series @returns {Extents} */
function elementExtents(series) {
    const { type, places } = series;
    const { base } = series.properties;
    const shareX = WITH_X_MARGIN.includes(type) ? X_MARGIN : 0;
    return {
        x: (isLog) => {
            const range = places?.extremes(places.begin, places.end, leastOf(isLog)) ?? NOTHING;
            const half = type === "bars" && !isLog ? barWidthOf(series) / 2 : 0;
            return { range: [range[0] - half, range[1] + half], margin: [shareX, shareX] };
        },
        y: (x, isLog) => {
            const least = leastOf(isLog);
            let range = places ? valuesWithin(series, places, x, least) : NOTHING;
            const isBased = base !== undefined && base > least && range[0] <= range[1];
            if (isBased) range = union(range, [base, base]);
            const at = (/** @type {number} */ end) => (isBased && end === base ? 0 : Y_MARGIN);
            return { range, margin: [at(range[0]), at(range[1])] };
        },
    };
}

/** @param {Item} series @param {Places} places @param {Range} x @param {number} least
 * @returns {Range} */
function valuesWithin(series, places, x, least) {
    const { y, low, high, minus, plus } = series.columns;
    if (minus && plus) return errorsWithin(series, places, x, least);
    const columns = [y, low, high].filter(Boolean);
    const [from, to] = visiblePart(places, x);
    const isWhole = places.isSorted || isWithin(places.extremes(from, to), x);
    const found = columns.map((column) =>
        isWhole ? column.extremes(from, to, least) : scan(places, column, x, least),
    );
    return found.reduce(union, NOTHING);
}

/** The indices of the elements within a range: from the first to before the last; all, where the
 * places are not sorted. @param {Places} places @param {Range} x @returns {Range} */
export function visiblePart(places, [low, high]) {
    if (!places.isSorted) return [places.begin, places.end];
    const from = places.lowerBound(low);
    let to = places.lowerBound(high, from);
    while (to < places.end && places.at(to) <= high) ++to;
    return [from, to];
}

/** @param {Places} places @param {Column} column @param {Range} x @param {number} least
 * @returns {Range} */
function scan(places, column, [left, right], least) {
    let [low, high] = NOTHING;
    for (let i = places.begin; i < places.end; ++i) {
        const place = places.at(i);
        if (!(place >= left && place <= right)) continue;
        const value = column.at(i);
        if (value < low && value > least) low = value;
        if (value > high && value < Infinity) high = value;
    }
    return high > least ? [low, high] : NOTHING;
}

/** @param {Item} series @param {Places} places @param {Range} x @param {number} least
 * @returns {Range} */
function errorsWithin({ columns: { y, minus, plus } }, places, x, least) {
    let [low, high] = NOTHING;
    const [from, to] = visiblePart(places, x);
    for (let i = from; i < to; ++i) {
        if (!(places.at(i) >= x[0] && places.at(i) <= x[1])) continue;
        const value = y.at(i);
        // Without a place for the element itself nothing of it is drawn.
        if (!(value > least && value < Infinity)) continue;
        const bottom = value - (minus.at(i) || 0);
        const top = value + (plus.at(i) || 0);
        low = Math.min(low, bottom > least ? bottom : value);
        high = Math.max(high, top < Infinity ? top : value);
    }
    return [low, high];
}

/** @type {WeakMap<Item, {changes: number, width: number}>} */
const barWidths = new WeakMap();

/** In units of x: as it is set, or by the least distance of two bars. @param {Item} series */
export function barWidthOf(series) {
    const { barWidth } = series.properties;
    if (barWidth !== null) return barWidth;
    const known = barWidths.get(series);
    if (known?.changes === series.changes) return known.width;
    const width = leastDistance(series.places) * BAR_SHARE;
    barWidths.set(series, { changes: series.changes, width });
    return width;
}

/** @param {Places | null} places @returns {number} 1 where there are no two */
function leastDistance(places) {
    if (!places) return 1;
    const count = places.end - places.begin;
    let values = Float64Array.from({ length: count }, (_, i) => places.at(places.begin + i));
    values = values.filter(Number.isFinite);
    if (!places.isSorted) values.sort();
    let least = Infinity;
    for (let i = 1; i < values.length; ++i) {
        const distance = values[i] - values[i - 1];
        if (distance > 0 && distance < least) least = distance;
    }
    return least === Infinity ? 1 : least;
}

/** The edges of an image. @param {Item} series @returns {{x: Range, y: Range}} */
export function edgesOf({ properties }) {
    return {
        x: properties.x ?? [0, properties.columns],
        y: properties.y ?? [0, properties.rows],
    };
}

/** @param {Item} series @returns {Extents} */
function imageExtents(series) {
    const { x, y } = edgesOf(series);
    const hasData = series.given > 0;
    const of = (/** @type {Range} */ range, /** @type {boolean} */ isLog) => ({
        range: hasData ? rangeOf(range, isLog) : NOTHING,
        margin: NO_MARGIN,
    });
    return { x: (isLog) => of(x, isLog), y: (_, isLog) => of(y, isLog) };
}

/** @param {Item} series @returns {Extents} */
function referenceExtents({ properties: { orientation, at, span } }) {
    const of = (/** @type {string} */ along, /** @type {boolean} */ isLog) => ({
        range: orientation === along ? rangeOf([at, ...(span ?? [])], isLog) : NOTHING,
        margin: /** @type {[number, number]} */ ([Y_MARGIN, Y_MARGIN]),
    });
    return { x: (isLog) => of("vertical", isLog), y: (_, isLog) => of("horizontal", isLog) };
}

/** @param {Item} series @returns {Extents} */
function textExtents({ properties: { at, inAxes } }) {
    const of = (/** @type {number} */ part, /** @type {boolean} */ isLog) => ({
        range: at && !inAxes ? rangeOf([at[part]], isLog) : NOTHING,
        margin: /** @type {[number, number]} */ ([X_MARGIN, X_MARGIN]),
    });
    return { x: (isLog) => of(0, isLog), y: (_, isLog) => of(1, isLog) };
}

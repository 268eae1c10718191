// What axes show, in words.

/** @typedef {import("./axes_view.mjs").AxesView} AxesView */
/** @typedef {import("./navigation.mjs").Which} Which */

/** @type {Record<string, string>} types whose names are no words */
const WORDS = { errorBars: "error bars", reference: "reference line" };

/** @param {AxesView} view @param {Which} which
 * @param {(view: AxesView, which: Which, value: number) => string} valueText */
function axisText(view, which, valueText) {
    const axis = view.description[which];
    const limits = view.shown[which];
    if (!axis || !limits) return "";
    const name = which === "y2" ? "second y" : which;
    const label = [axis.label, axis.unit && `in ${axis.unit}`].filter((part) => part).join(" ");
    const scale = axis.scale === "log" ? ", logarithmic" : "";
    const [low, high] = limits.map((value) => valueText(view, which, value));
    return `${name}${label && `, ${label}`}${scale}, from ${low} to ${high}`;
}

/** A name for axes: what they show, and from where to where.
 * @param {AxesView} view @param {string} figure its title
 * @param {(view: AxesView, which: Which, value: number) => string} valueText */
export function spokenName(view, figure, valueText) {
    const { title, series } = view.description;
    const shown = series.filter(({ visible }) => visible);
    const drawn = shown.map(({ type, name }) => [WORDS[type] ?? type, name].join(" ").trim());
    const axes = /** @type {Which[]} */ (["x", "y", "y2"]).map((which) =>
        axisText(view, which, valueText),
    );
    const heading = [figure, title].filter((part) => part).join(", ") || "Axes";
    return [heading, drawn.join(", ") || "nothing yet", ...axes].filter((part) => part).join(". ");
}

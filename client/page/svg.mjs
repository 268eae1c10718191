// A figure as SVG, as it is laid out on the page.

import { rampColors } from "./color_bar.mjs";
import { FONT, LINE_HEIGHT, cutText, textWidth } from "./text_width.mjs";
import { escapeXml } from "./xml.mjs";

/** @typedef {import("./axes_view.mjs").AxesView} AxesView */
/** @typedef {import("./figure_view.mjs").FigureView} FigureView */
/** @typedef {import("./navigation.mjs").Which} Which */
/** @typedef {import("./ticks.mjs").Tick} Tick */

/** @typedef {{left: number, top: number, width: number, height: number}} Box */

const TITLE = 30;
const MARGIN = 8;
const TICK = 5;
const TEXT_GAP = 9;
/** From the middle of a line of text down to where its letters stand. */
const DROP = 4;
/** Degrees by which a label is turned. */
const TURNS = { x: 0, y: -90, y2: 90 };
const MIDDLE = { "text-anchor": "middle" };

/** @typedef {Record<string, string | number>} Attributes */

/** @param {string} name @param {Attributes} attributes @param {string} [content] SVG */
function tag(name, attributes, content = "") {
    const all = Object.entries(attributes).map(([key, value]) => {
        const shown = typeof value === "number" ? Math.round(value * 100) / 100 : value;
        return ` ${key}="${escapeXml(String(shown))}"`;
    });
    return `<${name}${all.join("")}${content === "" ? "/>" : `>${content}</${name}>`}`;
}

/** @param {number} x @param {number} y of its middle @param {string} content
 * @param {Attributes} [more] */
function text(x, y, content, more = {}) {
    return content === "" ? "" : tag("text", { x, y, dy: DROP, ...more }, escapeXml(content));
}

/** @param {number} x1 @param {number} y1 @param {number} x2 @param {number} y2 @param {string} stroke */
const line = (x1, y1, x2, y2, stroke) => tag("line", { x1, y1, x2, y2, stroke });

/** A figure as the page shows it. */
export class FigureDrawing {
    #figure;
    #colors;
    #title;
    #origin;
    width;
    height;

    /** @param {FigureView} figure @param {import("./theme.mjs").Colors} colors
     * @param {boolean} hasTitle */
    constructor(figure, colors, hasTitle) {
        this.#figure = figure;
        this.#colors = colors;
        this.#title = hasTitle ? figure.description.title : "";
        const { left, top, width, height } = figure.grid.getBoundingClientRect();
        const above = this.#title === "" ? MARGIN : TITLE;
        this.#origin = { left: left - MARGIN, top: top - above };
        this.width = Math.ceil(width + 2 * MARGIN);
        this.height = Math.ceil(height + above + MARGIN);
    }

    /** Where an element lies. @param {Element} element @returns {Box} */
    boxOf(element) {
        const { left, top, width, height } = element.getBoundingClientRect();
        return { left: left - this.#origin.left, top: top - this.#origin.top, width, height };
    }

    /** @param {{ground: boolean, scale: number}} how scale: pixels for a CSS pixel
     * @param {(view: AxesView) => string} [series] as SVG, in CSS pixels of the plotting area */
    svg({ ground, scale }, series = () => "") {
        const { width, height } = this;
        const axes = [...this.#figure.axes.values()].filter((view) => view.isLaidOut);
        const all = [
            ground ? tag("rect", { width, height, fill: this.#colors.get("panel") }) : "",
            text(MARGIN, TITLE / 2, this.#title, { "font-size": 14, "font-weight": 600 }),
            ...axes.map((view) => this.#axes(view, series(view))),
        ];
        return tag(
            "svg",
            {
                xmlns: "http://www.w3.org/2000/svg",
                width: width * scale,
                height: height * scale,
                viewBox: `0 0 ${width} ${height}`,
            },
            tag("g", { style: `font: ${FONT}`, fill: this.#colors.get("text") }, all.join("")),
        );
    }

    /** @param {AxesView} view @param {string} series */
    #axes(view, series) {
        const area = this.boxOf(view.plot.over);
        const { left: x, top: y, width, height } = area;
        const frame = {
            x,
            y,
            width,
            height,
            viewBox: `0 0 ${width} ${height}`,
            overflow: "hidden",
        };
        return [
            this.#title3(view),
            this.#legend(view),
            this.#grid(view, area),
            series === "" ? "" : tag("svg", frame, series),
            this.#ticks(view, area),
            this.#labels(view, area),
            this.#colorBars(view),
        ].join("");
    }

    /** @param {AxesView} view */
    #title3({ title, description }) {
        if (title.hidden) return "";
        const { left, top, width, height } = this.boxOf(title);
        const content = cutText(description.title, width);
        return text(left + width / 2, top + height / 2, content, { ...MIDDLE, "font-weight": 600 });
    }

    /** @param {AxesView} view */
    #legend({ legend: { element } }) {
        if (element.hidden) return "";
        const shown = /** @type {NodeListOf<HTMLElement>} */ (
            element.querySelectorAll("[aria-pressed=true]")
        );
        const entries = [...shown].map((button) => {
            const { left, top, width, height } = this.boxOf(button);
            const fill = button.style.getPropertyValue("--color");
            const middle = top + height / 2;
            const swatch = tag("rect", {
                x: left + 7,
                y: middle - 1.5,
                width: 14,
                height: 3,
                fill,
            });
            return swatch + text(left + 27, middle, cutText(button.textContent ?? "", width - 30));
        });
        return entries.join("");
    }

    /** @param {AxesView} view @param {Box} area */
    #grid({ ticks }, { left, top, width, height }) {
        const color = this.#colors.get("grid");
        const [right, bottom] = [left + width, top + height];
        const x = ticks.x.ticks.map(({ at }) => left + at * width);
        const y = ticks.y.ticks.map(({ at }) => bottom - at * height);
        const lines = [
            ...x.map((across) => line(across, top, across, bottom, color)),
            ...y.map((down) => line(left, down, right, down, color)),
        ];
        return lines.join("");
    }

    /** @param {AxesView} view @param {Box} area */
    #ticks({ ticks, description }, { left, top, width, height }) {
        const rule = this.#colors.get("rule");
        const [right, bottom] = [left + width, top + height];
        const below = (/** @type {Tick} */ { at, text: content }) => {
            const x = left + at * width;
            const lines = content.split("\n").map((one, i) => {
                const y = bottom + TEXT_GAP + LINE_HEIGHT * (i + 0.4);
                return text(x, y, one, MIDDLE);
            });
            return line(x, bottom, x, bottom + TICK, rule) + lines.join("");
        };
        const beside = (/** @type {number} */ x, /** @type {1 | -1} */ side) => {
            const anchor = { "text-anchor": side < 0 ? "end" : "start" };
            return (/** @type {Tick} */ { at, text: content }) => {
                const y = bottom - at * height;
                const mark = line(x, y, x + side * TICK, y, rule);
                return mark + text(x + side * TEXT_GAP, y, content, anchor);
            };
        };
        const second = description.y2 ? ticks.y2.ticks.map(beside(right, 1)) : [];
        const all = [
            ...ticks.x.ticks.map(below),
            ...ticks.y.ticks.map(beside(left, -1)),
            ...second,
        ];
        const rules = [
            line(left, top, left, bottom, rule),
            line(left, bottom, right, bottom, rule),
        ];
        if (description.y2) rules.push(line(right, top, right, bottom, rule));
        return tag("g", { fill: this.#colors.get("quiet") }, rules.join("") + all.join(""));
    }

    /** @param {AxesView} view @param {Box} area */
    #labels(view, area) {
        const all = /** @type {Which[]} */ (["x", "y", "y2"]).map((which) => {
            const { element, parts } = view.labels[which];
            if (element.hidden) return "";
            const box = this.boxOf(element);
            const isX = which === "x";
            const x = isX ? area.left + area.width / 2 : box.left + box.width / 2;
            const y = isX ? box.top + box.height / 2 : area.top + area.height / 2;
            const [name, ...others] = parts;
            const rest = others.filter((part) => part !== "").join(" ");
            const room = (isX ? area.width : box.height) - textWidth(` ${rest}`);
            const content = [cutText(name, room), rest].filter((part) => part !== "").join(" ");
            const transform = `rotate(${TURNS[which]} ${x.toFixed(1)} ${y.toFixed(1)})`;
            return text(x, y, content, { ...MIDDLE, ...(!isX && { transform }) });
        });
        return all.join("");
    }

    /** @param {AxesView} view */
    #colorBars({ colorBars, description: { id } }) {
        const bars = [...colorBars.children].map((bar, i) => {
            const [ramp, ticks, name] = [...bar.children];
            const { left: x, top: y, width, height } = this.boxOf(ramp);
            const colors = rampColors(/** @type {HTMLElement} */ (bar).dataset.map ?? "");
            const stops = colors.map((color, at) =>
                tag("stop", { offset: String(at / (colors.length - 1)), "stop-color": color }),
            );
            const gradient = `ramp-${id}-${i}`;
            const texts = [...ticks.children].map((tick) => {
                const box = this.boxOf(tick);
                return text(box.left, box.top + box.height / 2, tick.textContent ?? "");
            });
            const box = this.boxOf(name);
            const [across, down] = [box.left + box.width / 2, y + height / 2];
            const transform = `rotate(90 ${across.toFixed(1)} ${down.toFixed(1)})`;
            return [
                tag("linearGradient", { id: gradient, x1: 0, x2: 0, y1: 1, y2: 0 }, stops.join("")),
                tag("rect", { x, y, width, height, fill: `url(#${gradient})` }),
                tag("g", { fill: this.#colors.get("quiet") }, texts.join("")),
                text(across, down, cutText(name.textContent ?? "", height), {
                    ...MIDDLE,
                    transform,
                }),
            ].join("");
        });
        return colorBars.hidden ? "" : bars.join("");
    }
}

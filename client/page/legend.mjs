// The legend of axes, which is uPlot's: a row for each named series, which hides and shows it. Its
// label is a button here, since uPlot's own take the mouse only: no key reaches them, and no screen
// reader is told whether they are pressed. The worker draws the series: in uPlot they have no points.

import { make } from "./dom.mjs";

/** @typedef {import("./messages.mjs").AxesDescription} AxesDescription */
/** @typedef {import("uplot")} Plot */

/** What uPlot reads of a series that it does not draw. @type {never[]} */
const NO_POINTS = [];

export class Legend {
    element = make("div", { class: "legend" });
    #onVisible;
    /** @type {Plot | null} */
    #plot = null;
    /** The columns that uPlot reads, x first. @type {number[][]} */
    #columns = [];
    /** What the rows are for. */
    #key = "";
    /** @type {{id: number, button: HTMLElement}[]} */
    #rows = [];

    /** @param {(series: number, visible: boolean) => void} onVisible somebody hides or shows one */
    constructor(onVisible) {
        this.#onVisible = onVisible;
    }

    /** @returns {import("uplot").Legend} */
    get options() {
        return {
            live: false,
            markers: { show: false },
            mount: (_, table) => {
                // Of a table it has neither columns nor headings.
                table.role = "presentation";
                this.element.append(table);
            },
        };
    }

    /** Belongs to this plot from now on, with its data, to which it adds columns.
     * @param {Plot} plot @param {number[][]} columns */
    moveTo(plot, columns) {
        this.#plot = plot;
        this.#columns = columns;
        this.#key = "";
        this.#rows = [];
    }

    /** @param {AxesDescription} axes */
    show({ legend, series }) {
        const plot = this.#plot;
        if (!plot) return;
        const named = legend ? series.filter(({ name }) => name !== "") : [];
        this.element.hidden = named.length === 0;
        const key = JSON.stringify(named.map(({ id, name, type }) => [id, name, type]));
        // Before it has drawn, a plot must not be told to draw again.
        if (this.#key !== key || plot.status === 0) {
            this.#key = key;
            this.#fill(plot, named);
        }
        named.forEach(({ color, visible }, i) => {
            this.#rows[i].button.style.setProperty("--color", color);
            if (plot.series[i + 1].show !== visible) {
                plot.setSeries(i + 1, { show: visible }, false);
                this.#showPressed(i);
            }
        });
    }

    /** Something in uPlot's series has changed. @param {number} index of them */
    changed(index) {
        const row = this.#rows[index - 1];
        if (row && this.#showPressed(index - 1)) {
            this.#onVisible(row.id, this.#plot?.series[index].show ?? true);
        }
    }

    /** @param {number} i of the rows @returns {boolean} whether it was otherwise */
    #showPressed(i) {
        const { button } = this.#rows[i];
        const pressed = String(this.#plot?.series[i + 1].show);
        const isNew = button.getAttribute("aria-pressed") !== pressed;
        button.setAttribute("aria-pressed", pressed);
        return isNew;
    }

    /** Anew: uPlot would put a row between others at the wrong place. @param {Plot} plot
     * @param {AxesDescription["series"]} named */
    #fill(plot, named) {
        while (plot.series.length > 1) plot.delSeries(plot.series.length - 1);
        this.#columns.splice(1);
        this.#rows = named.map((series) => ({ id: series.id, button: makeButton(series) }));
        named.forEach(({ visible }, i) => {
            this.#columns.push(NO_POINTS);
            plot.addSeries({
                label: this.#rows[i].button,
                show: visible,
                auto: false,
                paths: () => null,
                points: { show: false },
            });
        });
    }
}

/** @param {AxesDescription["series"][number]} series */
function makeButton({ name, type, visible }) {
    const swatch = make("span", { class: `swatch ${type}`, "aria-hidden": "true" });
    const text = make("span", { class: "name" }, name);
    const attributes = {
        type: "button",
        title: `Show or hide ${name}`,
        "aria-pressed": `${visible}`,
    };
    return make("button", attributes, swatch, text);
}

// How long frames take, and where: a picture over the time, and a table of percentiles.

import uPlot from "uplot";

import { cycleColor } from "./colors.mjs";
import { make } from "./dom.mjs";
import { openDialog } from "./keys.mjs";
import { latencyOf, stackOf } from "./latency.mjs";
import { FONT, textWidth } from "./text_width.mjs";
import { numberText } from "./ticks.mjs";

/** @typedef {ReturnType<typeof latencyOf>} Latency */
/** @typedef {import("./latency.mjs").Summary} Summary */
/** @typedef {import("../engine_clock.mjs").Clock} Clock */
/** @typedef {{name: string, color: string | null, summary: Summary}} Row */

/** Milliseconds between two looks at what has come, and how many times as long as a look takes. */
const LOOK_AGAIN = 1000;
const REST = 10;
const MS_PER_S = 1000;
const US_PER_MS = 1000;
const HEADER = ["ms", "50 %", "90 %", "99 %", "largest", "frames"];
/** One for each frame that is shown: as wide as there is room, up to so many pixels. */
const BARS = uPlot.paths.bars?.({ size: [1, 8, 1] });
const ROOM_ABOVE = 1.05;
/** Few frames may take far longer than all others: the picture ends at so many times what this part
 * of those that it shows takes at most, and they go beyond it. */
const USUAL = 95;
const ROOM_FOR_UNUSUAL = 3;
/** How many bars keys go on. @type {Record<string, number>} */
const STEPS = {
    ArrowLeft: -1,
    ArrowDown: -1,
    ArrowRight: 1,
    ArrowUp: 1,
    PageDown: -10,
    PageUp: 10,
    Home: -Infinity,
    End: Infinity,
};
/** Of a late frame's line, in CSS pixels. */
const DASH = 4;

/** @param {number} milliseconds as finely as most browsers tell the time */
const timeText = (milliseconds) => (Number.isNaN(milliseconds) ? "–" : milliseconds.toFixed(1));
/** @param {number} count */
const countText = (count) => count.toLocaleString("en");

/** What is known of the two clocks. @param {Latency} latency @param {Clock | null} clock */
function clocksNote({ parts, clocks }, clock) {
    const names = new Set(parts.map(({ name }) => name));
    if (!clocks.isShifted && clock?.shift) {
        const by = timeText(Math.abs(clock.shift) / US_PER_MS);
        const where = clock.shift > 0 ? "behind" : "ahead of";
        const within = timeText(clocks.within);
        return `The page’s clock is ${by} ms ${where} the engine’s, to within ${within} ms; that is taken out.`;
    }
    if (!clocks.isShifted) {
        return `The clocks of engine and page agree to within ${timeText(clocks.within)} ms.`;
    }
    if (names.has("Way back")) {
        return "The clocks of engine and page differ: each way counts from its fastest one.";
    }
    if (names.has("Engine to page")) {
        return "Nobody knows whether the clocks of engine and page agree: the way to the page counts from the fastest one.";
    }
    return "The engine does not say when it sends.";
}

/** What has to be known to read the table. @param {Latency} latency @param {boolean} isReplay
 * @param {Clock | null} [clock] what the page has measured */
export function notesOf(latency, isReplay, clock = null) {
    const { parts, whole, late } = latency;
    const notes = [clocksNote(latency, clock)];
    if (parts.some(({ name }) => name === "In the page")) {
        notes.push("Nothing says when painting began.");
    }
    if (whole.summary.count === 0) {
        notes.push("The way back is in an engine’s recording; a page does not learn of it.");
    }
    if (late.length > 0) notes.push("A dashed line: a frame that was late.");
    if (isReplay) {
        notes.push(
            "A click into the picture goes to that frame; so do the arrow keys, and then Enter.",
        );
    }
    return notes.join(" ");
}

/** The panel behind the figure in the status bar. */
export class LatencyPanel {
    #worker;
    #colors;
    #seek;
    /** @type {HTMLDialogElement | null} */
    #dialog = null;
    #picture = make("div", { class: "picture" });
    #table = make("div", { class: "scroll", tabindex: 0 });
    #notes = make("p");
    #beyond = make("p", { hidden: true }, "Some frames go beyond the picture: see the largest.");
    /** @type {uPlot | null} */
    #plot = null;
    /** What is shown; "total" and "clock": of the worker's answer.
     * @type {{latency: Latency, total: number, clock: Clock | null} | null} */
    #shown = null;
    #isReplay = false;
    /** A recording's moment that was chosen in the picture. */
    #chosen = 0;
    /** The moments of the bars, and what their frames took. @type {{time: number[], whole: number[]}} */
    #bars = { time: [], whole: [] };
    /** @type {ReturnType<typeof setTimeout> | undefined} */
    #timer;

    /** @param {import("./worker_link.mjs").WorkerLink} worker
     * @param {import("./theme.mjs").Colors} colors
     * @param {(time: number) => void} seek to a recording's moment */
    constructor(worker, colors, seek) {
        this.#worker = worker;
        this.#colors = colors;
        this.#seek = seek;
        colors.whenChanged(() => this.#show());
        new ResizeObserver(() => this.#draw()).observe(this.#picture);
        this.#picture.addEventListener("keydown", (event) => this.#key(event));
    }

    /** @param {boolean} isReplay of a recording */
    open(isReplay) {
        this.#isReplay = isReplay;
        this.#shown = null;
        this.#chosen = 0;
        const dialog = openDialog("Latency");
        dialog.classList.add("latency");
        dialog.append(this.#picture, this.#beyond, this.#table, this.#notes);
        this.#dialog = dialog;
        this.#show();
        dialog.addEventListener("close", () => {
            if (this.#dialog !== dialog) return;
            clearTimeout(this.#timer);
            this.#plot?.destroy();
            this.#plot = null;
            this.#dialog = null;
        });
        void this.#look(dialog);
    }
    close() {
        this.#dialog?.close();
    }

    /** Now, and again while this dialog is open. @param {HTMLDialogElement} dialog */
    async #look(dialog) {
        const { total, columns, clock } = await this.#worker.ask({ kind: "latency" });
        if (this.#dialog !== dialog) return;
        const begin = performance.now();
        if (total !== this.#shown?.total) {
            this.#shown = { latency: latencyOf(columns, clock), total, clock };
            this.#show();
        }
        const rest = Math.max(REST * (performance.now() - begin), LOOK_AGAIN);
        this.#timer = setTimeout(() => void this.#look(dialog), rest);
    }

    #show() {
        if (!this.#dialog) return;
        const isEmpty = !this.#shown || this.#shown.total === 0;
        this.#picture.hidden = isEmpty;
        this.#table.hidden = isEmpty;
        this.#beyond.hidden = isEmpty;
        this.#notes.textContent = "No frame has been painted yet.";
        if (!this.#shown || isEmpty) return;
        const { latency, total, clock } = this.#shown;
        const { parts, whole, late, time } = latency;
        const rows = parts.map(({ name, summary }, i) => ({
            name,
            color: this.#color(i),
            summary,
        }));
        const all = whole.summary.count > 0 ? [...rows, { ...whole, color: null }] : rows;
        const painted = `${countText(time.length - late.length)} frames painted`;
        const kept = total > time.length ? `, the newest of ${countText(total)}` : "";
        const lates = this.#isReplay ? `, ${countText(late.length)} late` : "";
        this.#table.replaceChildren(makeTable(`${painted}${lates}${kept}`, all));
        this.#notes.textContent = notesOf(latency, this.#isReplay, clock);
        this.#draw();
    }

    /** @param {number} part */
    #color(part) {
        return cycleColor(part, this.#colors.theme().dark);
    }

    #draw() {
        this.#plot?.destroy();
        this.#plot = null;
        const { clientWidth: width, clientHeight: height } = this.#picture;
        if (!this.#shown || width === 0) return;
        const { latency } = this.#shown;
        const { time, sums } = stackOf(latency, width);
        const newest = latency.time.at(-1) ?? 0;
        const secondsOf = (/** @type {number} */ at) =>
            (this.#isReplay ? at : at - newest) / MS_PER_S;
        const late = [...latency.late].map(secondsOf);
        const whole = sums.at(-1) ?? [];
        const top = topOf(whole);
        this.#beyond.hidden = whole.every((one) => one <= top);
        const options = { width, height, ...this.#options(sums.length, top, late) };
        const plot = new uPlot(options, [time.map(secondsOf), ...sums.reverse()], this.#picture);
        this.#picture.ariaLabel = `What frames took, over the time; the slowest ones. ${late.length} late.`;
        this.#picture.role = this.#isReplay ? "slider" : "img";
        this.#picture.tabIndex = this.#isReplay ? 0 : -1;
        this.#plot = plot;
        this.#bars = { time, whole };
        if (!this.#isReplay) return;
        plot.over.addEventListener("click", ({ offsetX }) => this.#go(plot.posToIdx(offsetX)));
        // Where its bars lie it knows once it has drawn.
        plot.batch(() => {});
        this.#choose(time.filter((at) => at <= this.#chosen).length - 1);
    }

    /** Marks a bar. @param {number} bar */
    #choose(bar) {
        const plot = this.#plot;
        const { time, whole } = this.#bars;
        const last = time.length - 1;
        if (last < 0) return;
        const index = Math.min(Math.max(bar, 0), last);
        this.#chosen = time[index];
        plot?.setCursor({ left: plot.valToPos(plot.data[0][index], "x"), top: 0 });
        const said = `${numberText(time[index] / MS_PER_S)} s: ${timeText(whole[index])} ms`;
        const values = { valuemin: 0, valuemax: last, valuenow: index, valuetext: said };
        for (const [name, value] of Object.entries(values)) {
            this.#picture.setAttribute(`aria-${name}`, String(value));
        }
    }

    /** @param {number} bar whose frame is to be seen */
    #go(bar) {
        this.close();
        this.#seek(this.#bars.time[bar] ?? 0);
    }

    /** @param {KeyboardEvent} event */
    #key(event) {
        const step = STEPS[event.key];
        if (!this.#isReplay || (!step && event.key !== "Enter")) return;
        const bar = this.#bars.time.indexOf(this.#chosen);
        if (step) this.#choose(bar + step);
        else this.#go(bar);
        event.preventDefault();
    }

    /** @param {number} count of parts @param {number} top milliseconds @param {number[]} late seconds
     * @returns {Omit<uPlot.Options, "width" | "height">} */
    #options(count, top, late) {
        const colors = this.#colors;
        const parts = Array.from({ length: count }, (_, i) => this.#color(i));
        const axis = {
            font: FONT,
            stroke: colors.get("quiet"),
            grid: { stroke: colors.get("grid"), width: 1 },
            ticks: { stroke: colors.get("rule"), width: 1, size: 5 },
            labelFont: FONT,
            labelSize: 18,
            values: (/** @type {uPlot} */ _, /** @type {number[]} */ at) =>
                at.map((one) => numberText(one)),
        };
        const widest = (/** @type {string[] | null} */ texts) =>
            14 + Math.max(0, ...(texts ?? []).map(textWidth));
        const of = this.#isReplay ? "of the recording" : "before the newest frame";
        return {
            legend: { show: false },
            cursor: {
                show: this.#isReplay,
                y: false,
                points: { show: false },
                drag: { x: false, y: false },
            },
            padding: [8, 8, 0, 0],
            scales: {
                x: { time: false },
                y: { range: () => [0, top * ROOM_ABOVE] },
            },
            axes: [
                { ...axis, label: `Seconds ${of}`, size: 26 },
                { ...axis, label: "Milliseconds", size: (_, texts) => widest(texts) },
            ],
            // The whole first, so that what is a part of it lies upon it.
            series: [
                {},
                ...parts
                    .map((fill) => ({ fill, width: 0, paths: BARS, points: { show: false } }))
                    .reverse(),
            ],
            hooks: { draw: [(plot) => drawLate(plot, late, colors.get("text"))] },
        };
    }
}

/** Where the picture of such times ends. @param {number[]} times */
function topOf(times) {
    const sorted = Float64Array.from(times).sort();
    const usual = sorted[Math.floor((USUAL / 100) * sorted.length)] ?? 1;
    return Math.min(sorted.at(-1) ?? 1, usual * ROOM_FOR_UNUSUAL) || 1;
}

/** A line for each pixel in which a frame was late. @param {uPlot} plot @param {number[]} late
 * @param {string} color */
function drawLate({ ctx, bbox, valToPos }, late, color) {
    const places = new Set(late.map((time) => Math.round(valToPos(time, "x", true))));
    ctx.fillStyle = color;
    const dash = DASH * uPlot.pxRatio;
    for (const left of places) {
        for (let at = 0; at < bbox.height; at += 2 * dash) {
            ctx.fillRect(left, bbox.top + at, uPlot.pxRatio, dash);
        }
    }
}

/** @param {string} caption @param {Row[]} rows */
function makeTable(caption, rows) {
    const head = HEADER.map((text) => make("th", { scope: "col" }, text));
    const body = rows.map(({ name, color, summary }) => {
        const { count, half, most, nearlyAll, all } = summary;
        const swatch = make("span", { class: "swatch", hidden: color === null });
        swatch.style.setProperty("--color", color);
        const values = [...[half, most, nearlyAll, all].map(timeText), countText(count)];
        const cells = values.map((text) => make("td", {}, text));
        return make("tr", {}, make("th", { scope: "row" }, swatch, name), ...cells);
    });
    return make(
        "table",
        {},
        make("caption", {}, caption),
        make("thead", {}, make("tr", {}, ...head)),
        make("tbody", {}, ...body),
    );
}

// A recording's time line: what is seen of it, and the buttons and keys that change that.

import { icon, make } from "./dom.mjs";
import { showKeys } from "./keys.mjs";
import { MARK, STRETCHES } from "./recording/marks.mjs";

/** @typedef {import("./messages.mjs").PlayerWish} PlayerWish */
/** @typedef {import("./messages.mjs").ToMain} ToMain */
/** @typedef {Extract<ToMain, {kind: "moment"}>} Moment */

export const PLAY = "M4.5 3v10l8-5Z";
export const PAUSE = "M5.5 3v10M10.5 3v10";
const BACK = "M12 3v10L6 8ZM4 3v10";
const ON = "M4 3v10l6-5ZM12 3v10";
const TROUBLE = "M7 2.5v6.5M7 12v.5M10.5 4.5 14 8l-3.5 3.5";
const SAVE = "M8 2.5v7M5 7l3 3 3-3M3 10.5v3h10v-3";
const SPEEDS = [0.1, 0.25, 0.5, 1, 2, 5, 10, 100, Infinity];
const NORMAL = SPEEDS.indexOf(1);
/** Milliseconds that a key goes on or back. */
const LEAP = 5000;
const MS_PER_S = 1000;
const S_PER_MIN = 60;
const MIN_PER_H = 60;
const SVG = "http://www.w3.org/2000/svg";
/** What is shown of each mark, from below; they differ in place as well as in colour.
 * @type {[string, number, string, number, number][]} */
const LANES = [
    ["frame", MARK.frame, "Frames", 1, 1],
    ["late", MARK.late, "Late", 0, 2],
    ["error", MARK.error, "Errors", 1, 2],
    ["damage", MARK.damage, "Damaged", 0, 3],
];

/** What each recording takes of the height, with the room below it. */
const STRIP = 4;

/** @param {number} milliseconds */
export function timeText(milliseconds) {
    const whole = Math.floor(milliseconds);
    const seconds = Math.floor(whole / MS_PER_S);
    const minutes = Math.floor(seconds / S_PER_MIN);
    const two = (/** @type {number} */ value) => String(value).padStart(2, "0");
    const rest = `${two(seconds % S_PER_MIN)}.${String(whole % MS_PER_S).padStart(3, "0")}`;
    const hours = Math.floor(minutes / MIN_PER_H);
    return hours > 0 ? `${hours}:${two(minutes % MIN_PER_H)}:${rest}` : `${minutes}:${rest}`;
}

/** Where a mark is, as a path over a width of `STRETCHES`. @param {Uint8Array} marks
 * @param {number} mark @param {number} top @param {number} height */
export function pathOf(marks, mark, top, height) {
    let path = "";
    for (let begin = 0; begin < marks.length; ++begin) {
        if (!(marks[begin] & mark)) continue;
        let end = begin + 1;
        while (end < marks.length && marks[end] & mark) ++end;
        path += `M${begin} ${top}h${end - begin}v${height}H${begin}Z`;
        begin = end;
    }
    return path;
}

/** @param {number} speed */
const speedText = (speed) => (speed === Infinity ? "as fast as possible" : `${speed} ×`);

export class TimeLine {
    #wish;
    #say;
    /** @type {import("./messages.mjs").RecordingSide[]} */
    #sides = [];
    #duration = 0;
    #time = 0;
    #isPlaying = false;
    #isHeld = false;
    #play = make("button", { type: "button", click: () => this.toggle() });
    #slider = make("input", { type: "range", min: 0, step: "any", "aria-label": "Time" });
    #marks = document.createElementNS(SVG, "svg");
    #now = make("output", { class: "now" });
    #reading = make("span", { class: "reading" });
    #save = make("button", {
        type: "button",
        "aria-label": "Save as HTML",
        title: "Save as HTML: page and recording in one file",
    });
    #speed = make("select", { "aria-label": "Speed", title: "Speed (<, >)" });

    /** @param {(wish: PlayerWish) => void} wish
     * @param {(text: string) => void} say to those who do not see it
     * @param {(time: number) => void} save what is shown as one HTML file, which opens then */
    constructor(wish, say, save) {
        this.#wish = wish;
        this.#say = say;
        SPEEDS.forEach((speed, i) => {
            this.#speed.append(make("option", { value: i }, speedText(speed)));
        });
        this.#speed.selectedIndex = NORMAL;
        this.#marks.setAttribute("preserveAspectRatio", "none");
        this.#marks.setAttribute("aria-hidden", "true");
        const button = (
            /** @type {string} */ name,
            /** @type {string} */ key,
            /** @type {string} */ paths,
            /** @type {() => void} */ click,
        ) =>
            make(
                "button",
                {
                    type: "button",
                    "aria-label": name,
                    "aria-keyshortcuts": key,
                    title: `${name} (${key})`,
                    click,
                },
                icon(paths),
            );
        this.element = make(
            "section",
            { id: "time-line", "aria-label": "Recording", hidden: true },
            button("Frame before", ",", BACK, () => this.#step(-1)),
            this.#play,
            button("Next frame", ".", ON, () => this.#step(1)),
            button("Next error or late frame", "e", TROUBLE, () => wish({ do: "trouble" })),
            make("div", { class: "track" }, this.#marks, this.#slider),
            this.#now,
            this.#reading,
            this.#speed,
            this.#save,
        );
        this.#save.append(icon(SAVE));
        this.#save.addEventListener("click", () => save(this.#time));
        this.#listen();
        this.#show();
    }

    get isShown() {
        return !this.element.hidden;
    }

    /** @param {Extract<ToMain, {kind: "recording"}>} recording */
    open({ duration, sides }) {
        this.#sides = sides;
        this.#duration = duration;
        // Such a file has one.
        this.#save.hidden = sides.length > 1;
        this.#slider.max = String(duration);
        this.element.hidden = false;
        this.#slider.focus();
        this.#show();
    }
    close() {
        this.element.hidden = true;
        this.#marks.replaceChildren();
        this.#time = 0;
        this.#isPlaying = false;
    }

    /** @param {Moment} moment */
    moved({ time, frames, isPlaying, why }) {
        this.#time = time;
        this.#isPlaying = isPlaying;
        const said = this.#sides.map(({ begin }, i) => {
            const at = new Date(begin + time).toLocaleString();
            return `${this.#nameOf(i)}Frame ${frames[i]}, ${at}`;
        });
        this.#now.title = said.join("\n");
        this.#show();
        const frame = frames.length > 1 ? "" : `Frame ${frames[0]} `;
        if (why) this.#say(`${frame}at ${timeText(time)}: ${why}`);
    }

    /** Those of each recording lie below those of the one before.
     * @param {{part: number, marks: Uint8Array[]}} survey */
    surveyed({ part, marks }) {
        const PERCENT = 100;
        this.#reading.textContent = part < 1 ? `reading ${Math.floor(part * PERCENT)} %` : "";
        this.#marks.setAttribute("viewBox", `0 0 ${STRETCHES} ${STRIP * marks.length - 1}`);
        this.#marks.style.setProperty("--strips", String(marks.length));
        const paths = marks.flatMap((one, i) =>
            LANES.map(([name, mark, text, top, height]) => {
                const path = document.createElementNS(SVG, "path");
                path.setAttribute("class", name);
                path.setAttribute("d", pathOf(one, mark, top + STRIP * i, height));
                const title = document.createElementNS(SVG, "title");
                title.textContent = this.#nameOf(i) + text;
                path.append(title);
                return path;
            }),
        );
        this.#marks.replaceChildren(...paths);
    }

    /** Before what is said of it, where there is more than one. @param {number} side */
    #nameOf(side) {
        return this.#sides.length > 1 ? `${this.#sides[side].name}: ` : "";
    }

    /** Plays, or stops. */
    toggle() {
        this.#wish(this.#isPlaying ? { do: "stop" } : { do: "play", speed: this.#chosen() });
    }

    /** A key, wherever the focus is. @param {KeyboardEvent} event */
    key(event) {
        const { target, key, ctrlKey, altKey, metaKey, defaultPrevented } = event;
        const isBusy = defaultPrevented || ctrlKey || altKey || metaKey;
        if (isBusy || !this.isShown || document.querySelector("dialog")) return;
        const at = target instanceof Element ? target : document.body;
        if (at.closest("input, select, textarea") && at !== this.#slider) return;
        // A button is pressed by it.
        const isSpace = key === " " && !at.closest("button");
        // Who speaks to the browser must not change the time by a letter.
        if (!isSpace && !at.closest(".chart, #time-line")) return;
        if (isSpace) event.repeat || this.toggle();
        else if (key === ",") this.#step(-1);
        else if (key === ".") this.#step(1);
        else if (key === "<") this.#choose(-1);
        else if (key === ">") this.#choose(1);
        else if (key === "?") showKeys();
        else if (key === "e") this.#wish({ do: "trouble" });
        else if (key === "j") this.#seek(this.#time - LEAP);
        else if (key === "l") this.#seek(this.#time + LEAP);
        else return;
        event.preventDefault();
        event.stopPropagation();
    }

    #listen() {
        const slider = this.#slider;
        const hold = (/** @type {boolean} */ isHeld) => () => (this.#isHeld = isHeld);
        slider.addEventListener("pointerdown", hold(true));
        for (const end of ["pointerup", "pointercancel", "blur"]) {
            slider.addEventListener(end, hold(false));
        }
        slider.addEventListener("input", () => this.#seek(slider.valueAsNumber));
        this.#speed.addEventListener("change", () => this.#setSpeed());
    }

    /** @param {1 | -1} by */
    #step(by) {
        this.#wish({ do: "step", by });
    }
    /** @param {number} time */
    #seek(time) {
        // The next key goes on from here, also before the frame is there.
        this.#time = Math.min(Math.max(time, 0), this.#duration);
        this.#wish({ do: "seek", time: this.#time });
        this.#show();
    }
    #chosen() {
        return SPEEDS[this.#speed.selectedIndex];
    }
    /** @param {number} by how many speeds faster */
    #choose(by) {
        const index = this.#speed.selectedIndex + by;
        this.#speed.selectedIndex = Math.min(Math.max(index, 0), SPEEDS.length - 1);
        this.#say(`Speed ${speedText(this.#chosen())}`);
        this.#setSpeed();
    }
    #setSpeed() {
        if (this.#isPlaying) this.#wish({ do: "play", speed: this.#chosen() });
    }

    #show() {
        const [name, paths] = this.#isPlaying ? ["Pause", PAUSE] : ["Play", PLAY];
        if (this.#play.ariaLabel !== name) {
            this.#play.replaceChildren(icon(paths));
            this.#play.ariaLabel = name;
            this.#play.title = `${name} (Space)`;
        }
        const text = `${timeText(this.#time)} / ${timeText(this.#duration)}`;
        this.#now.textContent = text;
        this.#slider.setAttribute("aria-valuetext", text);
        if (!this.#isHeld) this.#slider.valueAsNumber = this.#time;
    }
}

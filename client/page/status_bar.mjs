// Says how it goes: the connection's state, frames a second, the time of a flush, bytes.

import { clockText } from "./stale.mjs";

/** Milliseconds for which an error can be read, however soon it is mended. */
const ERROR_STAYS = 5000;
const BYTES_PER_KIB = 1024;
/** @type {Record<string, string>} */
const NAMES = {
    connecting: "Connecting",
    live: "Live",
    replay: "Recording",
    paused: "Paused",
    reconnecting: "Reconnecting",
    refused: "Refused",
    closed: "Closed",
};

/** @param {number} bytes */
export function sizeText(bytes) {
    const units = ["B", "KiB", "MiB", "GiB"];
    let unit = 0;
    for (; bytes >= BYTES_PER_KIB && unit < units.length - 1; ++unit) bytes /= BYTES_PER_KIB;
    return `${unit === 0 ? bytes : bytes.toFixed(1)} ${units[unit]}`;
}

/** The page's header. */
export class StatusBar {
    #root;
    #since = performance.now();
    #errorSince = 0;
    /** @type {{name: string, reason: string, since?: number}} */
    #state = { name: "connecting", reason: "" };
    #isPaused = false;

    /** @param {HTMLElement} root @param {() => void} retry called by the button */
    constructor(root, retry) {
        this.#root = root;
        this.part("retry").addEventListener("click", retry);
    }

    /** @param {{name: string, reason: string, since?: number}} state "since" when nothing is heard
     * any more, in milliseconds since 1970 */
    showState({ name, reason, since = 0 }) {
        this.#state = { name, reason, since };
        const shown = this.#isPaused && name === "live" ? "paused" : name;
        this.#root.dataset.state = shown;
        this.part("state").textContent = NAMES[shown] ?? shown;
        const when = since > 0 ? `since ${clockText(since)}` : "";
        this.part("reason").textContent = [reason, when].filter(Boolean).join(", ");
        this.part("retry").hidden = name !== "refused";
    }

    /** Says so in the state's place, as long as the connection is live. @param {boolean} isPaused */
    showPaused(isPaused) {
        this.#isPaused = isPaused;
        this.showState(this.#state);
    }

    /** @param {string} text the page's title */
    showTitle(text) {
        this.part("title").textContent = text;
        document.title = text;
    }

    /** @param {string} text the latest error; stays until later frames are on the screen */
    showError(text) {
        this.part("error").textContent = text;
        this.#errorSince = performance.now();
    }

    /** @param {{frames: number, flush: number, bytes: number}} statistics of frames since the last */
    showStatistics({ frames, flush, bytes }) {
        const now = performance.now();
        const seconds = (now - this.#since) / 1000;
        this.#since = now;
        this.part("fps").textContent = (frames / seconds).toFixed(0);
        this.part("flush").textContent = flush > 0 ? `${(flush / 1000).toFixed(1)} ms` : "–";
        this.part("bytes").textContent = sizeText(bytes);
        if (frames > 0 && now - this.#errorSince > ERROR_STAYS) this.part("error").textContent = "";
    }

    /** @param {string} name @returns {HTMLElement} */
    part(name) {
        const found = this.#root.querySelector(`[data-part="${name}"]`);
        if (!(found instanceof HTMLElement)) throw new Error(`no part ${name}`);
        return found;
    }
}

// Says how it goes: the connection's state, frames a second, the time of a flush, bytes.

const PERIOD = 1000;
/** Milliseconds for which an error can be read, however soon it is mended. */
const ERROR_STAYS = 5000;
const BYTES_PER_KIB = 1024;
const NAMES = {
    connecting: "Connecting",
    live: "Live",
    reconnecting: "Reconnecting",
    refused: "Refused",
    closed: "Closed",
};

/** @param {number} bytes */
function sizeText(bytes) {
    const units = ["B", "KiB", "MiB", "GiB"];
    let unit = 0;
    for (; bytes >= BYTES_PER_KIB && unit < units.length - 1; ++unit) bytes /= BYTES_PER_KIB;
    return `${unit === 0 ? bytes : bytes.toFixed(1)} ${units[unit]}`;
}

/** @param {number[]} values */
function median(values) {
    return values.sort((a, b) => a - b)[values.length >> 1];
}

/** The page's header. */
export class StatusBar {
    #root;
    #frames = 0;
    /** Microseconds. @type {number[]} */
    #flushes = [];
    #received;
    #since = performance.now();
    #errorSince = 0;

    /** @param {HTMLElement} root @param {() => void} retry called by the button
     * @param {() => number} received bytes so far */
    constructor(root, retry, received) {
        this.#root = root;
        this.#received = received;
        this.#part("retry").addEventListener("click", retry);
        setInterval(() => this.#show(), PERIOD);
    }

    /** @param {import("./protocol.mjs").State} state */
    showState({ name, reason }) {
        this.#root.dataset.state = name;
        this.#part("state").textContent = NAMES[name];
        this.#part("reason").textContent = reason;
        this.#part("retry").hidden = name !== "refused";
    }

    /** @param {string} text the latest error; stays until a later frame is on the screen */
    showError(text) {
        this.#part("error").textContent = text;
        this.#errorSince = performance.now();
    }

    /** A frame of the engine's is on the screen. */
    countFrame() {
        ++this.#frames;
        if (performance.now() - this.#errorSince > ERROR_STAYS) {
            this.#part("error").textContent = "";
        }
    }

    /** @param {number} microseconds */
    countFlush(microseconds) {
        this.#flushes.push(microseconds);
    }

    #show() {
        const now = performance.now();
        const seconds = (now - this.#since) / 1000;
        this.#since = now;
        this.#part("fps").textContent = (this.#frames / seconds).toFixed(0);
        const flush = this.#flushes.length > 0 ? median(this.#flushes) : null;
        this.#part("flush").textContent = flush === null ? "–" : `${(flush / 1000).toFixed(1)} ms`;
        this.#part("bytes").textContent = sizeText(this.#received());
        this.#frames = 0;
        this.#flushes = [];
    }

    /** @param {string} name @returns {HTMLElement} */
    #part(name) {
        const found = this.#root.querySelector(`[data-part="${name}"]`);
        if (!(found instanceof HTMLElement)) throw new Error(`no part ${name}`);
        return found;
    }
}

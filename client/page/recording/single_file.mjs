// The page and a recording as one HTML file, which needs no server.

/** Of the file's template: where what stands. In a page that is such a file itself, where its own
 * recording stood. */
const PLACE = /\{\{(at|recording|page\.css|worker\.js|page\.js)\}\}/;
const PARTS = ["single.html", "page.css", "worker.js", "page.js"];
/** Bytes of a recording that a browser can still take as one text. */
const MOST = 256 * 1024 * 1024;
/** Bytes that are encoded at a time: without padding between them. */
const PIECE = 3 * 1024 * 1024;
/** Arguments of a call. */
const MOST_ARGUMENTS = 0x2000;

/** @typedef {Record<string, string | string[]>} Values */

/** @param {import("./sources.mjs").Source} source @returns {Promise<string[]>} its Base64 */
async function base64Of({ size, read }) {
    const texts = [];
    for (let from = 0; from < size; from += PIECE) {
        const bytes = await read(from, Math.min(PIECE, size - from));
        let piece = "";
        for (let at = 0; at < bytes.length; at += MOST_ARGUMENTS) {
            piece += String.fromCharCode(...bytes.subarray(at, at + MOST_ARGUMENTS));
        }
        texts.push(btoa(piece));
    }
    return texts;
}

/** @param {string} text Base64 @returns {Blob} */
export function blobOfBase64(text) {
    const LENGTH = (PIECE / 3) * 4;
    const pieces = [];
    for (let from = 0; from < text.length; from += LENGTH) {
        const piece = atob(text.slice(from, from + LENGTH));
        const bytes = new Uint8Array(piece.length);
        for (let at = 0; at < bytes.length; ++at) bytes[at] = piece.charCodeAt(at);
        pieces.push(bytes);
    }
    return new Blob(pieces);
}

/** Where the worker's script is. A page that is one file has it within, as a text that the browser
 * does not run. @param {Document} page @returns {string} */
export function workerAddress(page) {
    const text = page.getElementById("worker")?.textContent;
    if (!text) return "worker.js";
    return URL.createObjectURL(new Blob([text], { type: "text/javascript" }));
}

export class SingleFile {
    #get;
    /** What is known of it: the template, and what stands in it besides the recording.
     * @type {Promise<{template: string, values: Values}> | null} */
    #parts = null;

    /** @param {Document} page as it came: nothing has been changed
     * @param {(name: string) => Promise<Response>} [get] a file of the page */
    constructor(page, get = (name) => fetch(name)) {
        this.#get = get;
        const element = page.getElementById("recording");
        if (!element || !page.getElementById("worker")) return;
        const { textContent: text } = element;
        const { at } = element.dataset;
        const place = (/** @type {string} */ name) => `{{${name}}}`;
        element.textContent = place("recording");
        element.dataset.at = place("at");
        const template = `<!doctype html>\n${page.documentElement.outerHTML}\n`;
        this.#parts = Promise.resolve({ template, values: {} });
        element.textContent = text;
        element.dataset.at = at;
    }

    /** Gets what it needs while the program that serves the page is there. */
    prepare() {
        this.#prepared().catch(() => {
            // Said when somebody wants the file, and it still is not there.
        });
    }

    /** @param {import("./sources.mjs").Source} source of the recording
     * @param {number} at seconds since its beginning, where it is opened
     * @returns {Promise<Blob>} */
    async of(source, at) {
        if (source.size > MOST) {
            throw new Error("the recording is larger than an HTML file can hold (256 MiB)");
        }
        const { template, values } = await this.#prepared();
        const all = { ...values, at: String(at), recording: await base64Of(source) };
        const texts = template
            .split(PLACE)
            .flatMap((text, i) => (i % 2 === 0 ? text : (/** @type {Values} */ (all)[text] ?? "")));
        return new Blob(texts, { type: "text/html" });
    }

    #prepared() {
        this.#parts ??= this.#load().catch((thrown) => {
            this.#parts = null;
            throw new Error(`the page cannot be saved: ${thrown.message}`);
        });
        return this.#parts;
    }

    async #load() {
        const texts = await Promise.all(
            PARTS.map(async (name) => {
                const response = await this.#get(name);
                if (!response.ok) throw new Error(`${name}: ${response.status}`);
                return [name, await response.text()];
            }),
        );
        const { "single.html": template, ...values } = Object.fromEntries(texts);
        return { template, values };
    }
}

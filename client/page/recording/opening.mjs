// Which recording a page shows, and how somebody gives it one.

import { make } from "../dom.mjs";
import { blobOfBase64 } from "./single_file.mjs";
import { sourceOfAddress } from "./sources.mjs";

/** @typedef {import("../messages.mjs").Beginning} Beginning */

const PLAIN = /^[\w-][\w.-]*$/;

/** What the page is to begin with: a recording in its document, or one beside it that its address
 * names; null: an engine.
 * @param {Document} page @param {{hash: string}} location @returns {Blob | string | null} */
export function ownRecording(page, { hash }) {
    const element = page.getElementById("recording");
    const text = element?.textContent;
    if (element && text) {
        const recording = blobOfBase64(text.trim());
        // Once is enough.
        element.textContent = "";
        return recording;
    }
    const name = new URLSearchParams(hash.slice(1)).get("replay");
    return name && PLAIN.test(name) ? new URL(name, page.baseURI).href : null;
}

/** Where it is opened: at a frame that the address names, or where its document says.
 * @param {Document} page @param {{hash: string}} location @returns {Beginning} */
export function ownMoment(page, { hash }) {
    const frame = new URLSearchParams(hash.slice(1)).get("frame");
    if (frame !== null && /^\d+$/.test(frame)) return { frame: Number(frame) };
    const MS_PER_S = 1000;
    const seconds = Number(page.getElementById("recording")?.dataset.at ?? 0);
    return { time: Number.isFinite(seconds) ? seconds * MS_PER_S : 0 };
}

/** All of it. @param {Blob | string} file or its address @returns {Promise<Blob>} */
export async function wholeOf(file) {
    if (file instanceof Blob) return file;
    const source = await sourceOfAddress(file);
    const bytes = /** @type {Uint8Array<ArrayBuffer>} */ (await source.read(0, source.size));
    return new Blob([bytes]);
}

/** Lets somebody choose a file. @param {(file: File) => void} open */
export function chooseRecording(open) {
    const input = make("input", { type: "file", accept: ".mcap" });
    input.addEventListener("change", () => {
        const [file] = input.files ?? [];
        if (file) open(file);
    });
    input.click();
}

/** @param {(file: File) => void} open a file that was dropped onto the page */
export function listenToDrops(open) {
    document.addEventListener("dragover", (event) => {
        if (event.dataTransfer?.types.includes("Files")) event.preventDefault();
    });
    document.addEventListener("drop", (event) => {
        const [file] = event.dataTransfer?.files ?? [];
        if (!file) return;
        event.preventDefault();
        open(file);
    });
}

// Which recording a page shows, and how somebody gives it one.

import { make } from "../dom.mjs";

const PLAIN = /^[\w-][\w.-]*$/;

/** What the page is to begin with: a recording in its document, or one beside it that its address
 * names; null: an engine.
 * @param {Document} page @param {{hash: string}} location @returns {Blob | string | null} */
export function ownRecording(page, { hash }) {
    const text = page.getElementById("recording")?.textContent;
    if (text) return new Blob([Uint8Array.from(atob(text.trim()), (one) => one.charCodeAt(0))]);
    const name = new URLSearchParams(hash.slice(1)).get("replay");
    return name && PLAIN.test(name) ? new URL(name, page.baseURI).href : null;
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

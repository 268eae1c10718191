// Which recordings a page shows, and how somebody gives it some.

import { make } from "../dom.mjs";
import { openDialog } from "../keys.mjs";
import { blobOfBase64 } from "./single_file.mjs";

/** @typedef {import("../messages.mjs").Beginning} Beginning */

const PLAIN = /^[\w-][\w.-]*$/;

/** What the page is to begin with: a recording in its document, or those beside it that its address
 * names; none: an engine.
 * @param {Document} page @param {{hash: string}} location @returns {(Blob | string)[]} */
export function ownRecordings(page, { hash }) {
    const element = page.getElementById("recording");
    const text = element?.textContent;
    if (element && text) {
        const recording = blobOfBase64(text.trim());
        // Once is enough.
        element.textContent = "";
        return [recording];
    }
    const names = new URLSearchParams(hash.slice(1)).get("replay")?.split(",") ?? [];
    const isPlain = names.every((name) => PLAIN.test(name));
    return isPlain ? names.map((name) => new URL(name, page.baseURI).href) : [];
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

/** Lets somebody choose files. @param {(files: File[]) => void} open */
export function chooseRecordings(open) {
    const input = make("input", { type: "file", accept: ".mcap", multiple: true });
    input.addEventListener("change", () => {
        if (input.files?.length) open([...input.files]);
    });
    input.click();
}

/** Asks where a recording is shown: beside the one that is there, or in whose place. @param {File} file
 * @param {(Blob | string)[]} shown one or two @param {(files: (Blob | string)[]) => void} open */
export function askPlace(file, shown, open) {
    const dialog = openDialog("Open a recording");
    const button = (/** @type {string} */ text, /** @type {(Blob | string)[]} */ files) =>
        make(
            "button",
            {
                type: "button",
                click: () => {
                    dialog.close();
                    open(files);
                },
            },
            text,
        );
    const names =
        shown.length > 1
            ? ["In place of the second one", "In place of both"]
            : ["Beside this one", "In its place"];
    const choice = [button(names[0], [shown[0], file]), button(names[1], [file])];
    dialog.append(make("p", {}, file.name), make("div", { class: "choice" }, ...choice));
    choice[0].focus();
}

/** @param {(files: File[]) => void} open files that were dropped onto the page */
export function listenToDrops(open) {
    document.addEventListener("dragover", (event) => {
        if (event.dataTransfer?.types.includes("Files")) event.preventDefault();
    });
    document.addEventListener("drop", (event) => {
        const files = [...(event.dataTransfer?.files ?? [])];
        if (files.length === 0) return;
        event.preventDefault();
        open(files);
    });
}

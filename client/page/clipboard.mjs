// Copying texts.

import { make } from "./dom.mjs";

/** @param {string} text */
export async function copyText(text) {
    if (navigator.clipboard) return navigator.clipboard.writeText(text);
    // Without a secure context there is only the old way.
    const area = make("textarea", { class: "unseen" }, text);
    (document.fullscreenElement ?? document.body).append(area);
    area.select();
    document.execCommand("copy");
    return area.remove();
}

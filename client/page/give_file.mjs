// Gives a file to whoever looks.

import { make } from "./dom.mjs";

/** Milliseconds for which a browser may still read a file that it was given. */
const FILE_STAYS = 60000;

/** @param {Blob} blob @param {string} name */
export function giveFile(blob, name) {
    const href = URL.createObjectURL(blob);
    const link = make("a", { href, download: name });
    document.body.append(link);
    link.click();
    link.remove();
    setTimeout(() => URL.revokeObjectURL(href), FILE_STAYS);
}

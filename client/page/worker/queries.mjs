// What the main thread asks for: values at a place, tables, pictures.

/** @typedef {import("../messages.mjs").ToMain} ToMain */
/** @typedef {import("../messages.mjs").ToWorker} ToWorker */

/** @param {import("./stage.mjs").Stage} stage @param {ToWorker} query
 * @param {(message: ToMain, moved?: Transferable[]) => void} post */
export function answerQuery(stage, query, post) {
    void [stage, query, post];
}

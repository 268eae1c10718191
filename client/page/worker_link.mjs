// The way to the worker: messages, and questions that it answers.

/** @typedef {import("./messages.mjs").ToWorker} ToWorker */
/** @typedef {import("./messages.mjs").ToMain} ToMain */
/** @typedef {ToMain & {id: number}} Answer */

/** Without a number: it gets one.
 * @template T @typedef {T extends {id: number} ? Omit<T, "id"> : never} Question */

/** The worker, which holds the connection and the data. */
export class WorkerLink {
    #worker;
    #next = 0;
    /** @type {Map<number, (answer: any) => void>} */
    #asked = new Map();

    /** @param {string} url @param {(message: ToMain) => void} onMessage everything but answers
     * @param {(error: Error) => void} onError of the worker's script */
    constructor(url, onMessage, onError) {
        this.#worker = new Worker(url, { name: "figures" });
        this.#worker.onmessage = ({ data }) => {
            const answered = data.kind !== "ask" && this.#asked.get(data.id);
            if (!answered) return onMessage(data);
            this.#asked.delete(data.id);
            return answered(data);
        };
        this.#worker.onerror = (event) => onError(new Error(event.message ?? "the worker failed"));
    }

    /** @param {ToWorker} message @param {Transferable[]} [transfer] */
    post(message, transfer = []) {
        this.#worker.postMessage(message, transfer);
    }

    /** @param {Question<ToWorker>} question @returns {Promise<any>} the answer */
    ask(question) {
        const id = ++this.#next;
        const answer = new Promise((resolve) => this.#asked.set(id, resolve));
        this.post(/** @type {ToWorker} */ ({ ...question, id }));
        return answer;
    }
}

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
    /** @type {Map<number, {answered: (answer: any) => void, failed: (error: Error) => void}>} */
    #asked = new Map();

    /** @param {string} url @param {(message: ToMain) => void} onMessage everything but answers
     * @param {(error: Error) => void} onError of the worker's script */
    constructor(url, onMessage, onError) {
        this.#worker = new Worker(url, { name: "figures" });
        this.#worker.onmessage = ({ data }) => {
            const question = data.kind !== "ask" && this.#asked.get(data.id);
            if (!question) return onMessage(data);
            this.#asked.delete(data.id);
            if (data.kind === "unanswered") return question.failed(new Error(data.text));
            return question.answered(data);
        };
        this.#worker.onerror = (event) => {
            const error = new Error(event.message ?? "the worker failed");
            for (const { failed } of this.#asked.values()) failed(error);
            this.#asked.clear();
            onError(error);
        };
    }

    /** @param {ToWorker} message @param {Transferable[]} [transfer] */
    post(message, transfer = []) {
        this.#worker.postMessage(message, transfer);
    }

    /** @param {Question<ToWorker>} question @returns {Promise<any>} the answer; fails when the worker
     * does */
    ask(question) {
        const id = ++this.#next;
        const answer = new Promise((answered, failed) => this.#asked.set(id, { answered, failed }));
        this.post(/** @type {ToWorker} */ ({ ...question, id }));
        return answer;
    }
}

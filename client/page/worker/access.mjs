// How the worker gets in: the tab's token is with the main thread.

/** @typedef {import("../messages.mjs").ToMain} ToMain */
/** @typedef {import("../../access.mjs").Access} Access */

/** @implements {Access} */
export class MainAccess {
    #post;
    #last = 0;
    /** @type {Map<number, (value: string | boolean | null) => void>} */
    #asked = new Map();
    /** @type {(() => void)[]} */
    #whenOpened = [];

    /** @param {(message: ToMain) => void} post */
    constructor(post) {
        this.#post = post;
    }

    async token() {
        const token = await this.#ask("token");
        if (typeof token !== "string") throw new Error("the token could not be found out");
        return token;
    }
    async isServed() {
        const served = await this.#ask("served");
        if (served === null) throw new Error("whether the program is there could not be found out");
        return served === true;
    }
    /** @param {() => void} call */
    whenLinkOpened(call) {
        this.#whenOpened.push(call);
    }

    /** @param {"token" | "served"} what @returns {Promise<string | boolean | null>} */
    #ask(what) {
        const id = ++this.#last;
        return new Promise((resolve) => {
            this.#asked.set(id, resolve);
            this.#post({ kind: "ask", id, what });
        });
    }
    /** @param {number} id @param {string | boolean | null} value */
    told(id, value) {
        this.#asked.get(id)?.(value);
        this.#asked.delete(id);
    }
    linkOpened() {
        for (const call of this.#whenOpened) call();
    }
}

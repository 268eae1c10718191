// The worker's newest frame, until it is shown, with the pictures of those before it.

/** @typedef {Extract<import("./messages.mjs").ToMain, {kind: "frame"}>} Frame */

export class NextFrame {
    /** @type {Frame | null} */
    #frame = null;

    /** @param {Frame} frame @returns {boolean} whether there was none */
    put(frame) {
        const isFirst = this.#frame === null;
        for (const id of Object.keys(frame.pictures)) this.forget(Number(id));
        this.#frame = { ...frame, pictures: { ...this.#frame?.pictures, ...frame.pictures } };
        return isFirst;
    }

    /** What there is of these axes means nothing any more. @param {number} axes */
    forget(axes) {
        if (!this.#frame) return;
        const { limits, pictures } = this.#frame;
        pictures[axes]?.close();
        delete pictures[axes];
        delete limits[axes];
    }

    /** @param {(frame: Frame) => void} call shows it, if there is one */
    show(call) {
        const frame = this.#frame;
        this.#frame = null;
        if (!frame) return;
        try {
            call(frame);
        } finally {
            // A picture that nobody has shown would keep its memory until it is collected.
            for (const picture of Object.values(frame.pictures)) picture.close();
        }
    }
}

// What the page tells the engine of those who look at it.

/** @typedef {import("../messages.mjs").Limits} Limits */
/** @typedef {import("./limits.mjs").View} View */

/** Milliseconds between two events of the same axes' limits. */
const PAUSE = 100;

/** Tells of limits, not too often, and of the last ones always. */
export class LimitsEvents {
    #publish;
    #describe;
    /** @type {Map<number, {timer: ReturnType<typeof setTimeout>, isDue: boolean}>} by axes */
    #resting = new Map();

    /** @param {(event: Record<string, any>) => void} publish
     * @param {(axes: number) => Record<string, any> | null} describe what is seen now; null: the
     *   axes are gone */
    constructor(publish, describe) {
        this.#publish = publish;
        this.#describe = describe;
    }

    /** @param {number} axes are seen differently */
    changed(axes) {
        const resting = this.#resting.get(axes);
        if (resting) resting.isDue = true;
        else this.#tell(axes);
    }

    /** @param {number} axes */
    #tell(axes) {
        const described = this.#describe(axes);
        if (described) this.#publish({ event: "limits", axes, ...described });
        const timer = setTimeout(() => this.#rested(axes), PAUSE);
        this.#resting.set(axes, { timer, isDue: false });
    }

    /** @param {number} axes */
    #rested(axes) {
        const isDue = this.#resting.get(axes)?.isDue;
        this.#resting.delete(axes);
        if (isDue) this.#tell(axes);
    }

    /** Nobody is to be told any more. */
    forget() {
        for (const { timer } of this.#resting.values()) clearTimeout(timer);
        this.#resting.clear();
    }
}

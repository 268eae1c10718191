// The page's colours, as scripts and the worker need them.

/** @typedef {import("./messages.mjs").Theme} Theme */

/** @param {string} color as it is computed: "rgb(1, 2, 3)" */
function hexOf(color) {
    const parts = color.match(/[\d.]+/g)?.slice(0, 3) ?? [];
    return (
        "#" + parts.map((part) => Math.round(Number(part)).toString(16).padStart(2, "0")).join("")
    );
}

/** Reads colours from the style sheet, also those that somebody forces. */
export class Colors {
    #probe = document.createElement("span");
    /** @type {Record<string, string>} */
    #known = {};

    constructor() {
        this.#probe.hidden = true;
        // Or what is mixed from colours that somebody forces, as the grid's is, would be the text's.
        this.#probe.style.forcedColorAdjust = "none";
        document.body.append(this.#probe);
    }

    /** Calls when they have become others. @param {() => void} call */
    whenChanged(call) {
        const changed = () => {
            this.#known = {};
            call();
        };
        for (const query of [
            "(prefers-color-scheme: dark)",
            "(forced-colors: active)",
            "(prefers-contrast: more)",
        ]) {
            matchMedia(query).addEventListener("change", changed);
        }
    }

    /** @param {string} name of a property, without its dashes @returns {string} as computed */
    get(name) {
        if (!this.#known[name]) {
            this.#probe.style.color = `var(--${name})`;
            this.#known[name] = getComputedStyle(this.#probe).color;
        }
        return this.#known[name];
    }

    /** @returns {Theme} */
    theme() {
        const ground = hexOf(this.get("panel"));
        const [red, green, blue] = [1, 3, 5].map((at) => parseInt(ground.slice(at, at + 2), 16));
        const dark = 0.299 * red + 0.587 * green + 0.114 * blue < 128;
        return { ground, text: hexOf(this.get("text")), dark };
    }
}

// The monitor as a process of its own.
import assert from "node:assert/strict";

import { Program } from "./program.mjs";

export class Monitor extends Program {
    /** Starts it without a browser of its own; resolves when it has printed its link. */
    static start(...options) {
        return Monitor.run(process.env.KIROWEB_MONITOR, ["--no-browser", ...options]);
    }
    /** Ends, in order, with these numbers of frames and attempts, or one of several: none have
     * failed or timed out unless said. It is asked to end unless it does so by itself. */
    async end(expected = {}, { asked = true } = {}) {
        if (asked) this.process.kill("SIGINT");
        const line = await this.line(/ frames: /);
        const names = ["frames", "drawn", "failed", "timedOut", "left", "views", "returns"];
        const all = Object.fromEntries(line.match(/\d+/g).map((n, i) => [names[i], Number(n)]));
        all.status = await this.exited;
        const status = all.drawn === all.frames ? 0 : 1;
        const wanted = { status, failed: 0, timedOut: 0, ...expected };
        for (const [name, number] of Object.entries(wanted)) {
            assert.ok([number].flat().includes(all[name]), `${name}: ${all[name]}\n${this.said}`);
        }
    }
}

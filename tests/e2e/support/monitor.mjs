// The monitor as a process of its own, and what it says.
import assert from "node:assert/strict";
import { spawn } from "node:child_process";
import { once } from "node:events";
import { createInterface } from "node:readline";

const PROGRAM = process.env.KIROWEB_MONITOR;

export class Monitor {
    #lines = [];
    #waiting = [];

    /** Starts it without a browser of its own; resolves when it has printed its link. */
    static start(...options) {
        return Monitor.run(["--no-browser", ...options]);
    }
    static async run(options, env = process.env) {
        if (!PROGRAM) throw new Error("KIROWEB_MONITOR does not name the program");
        const monitor = new Monitor();
        monitor.process = spawn(PROGRAM, options, { env });
        monitor.exited = once(monitor.process, "exit").then(([status]) => status);
        for (const stream of [monitor.process.stdout, monitor.process.stderr]) {
            createInterface({ input: stream }).on("line", (line) => monitor.#hear(line));
        }
        monitor.link = await monitor.line(/^http:/);
        monitor.origin = new URL(monitor.link).origin;
        return monitor;
    }
    /** The first line, past or future, that matches. */
    line(pattern) {
        const found = this.#lines.find((line) => pattern.test(line));
        if (found !== undefined) return Promise.resolve(found);
        return new Promise((resolve, reject) => {
            this.#waiting.push({ pattern, resolve });
            this.exited.then(() =>
                setImmediate(reject, new Error(`ended without ${pattern}:\n${this.said}`)),
            );
        });
    }
    get said() {
        return this.#lines.join("\n");
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
    kill() {
        this.process.kill("SIGKILL");
        return this.exited;
    }
    #hear(line) {
        this.#lines.push(line);
        this.#waiting = this.#waiting.filter(
            ({ pattern, resolve }) => !pattern.test(line) || resolve(line),
        );
    }
}

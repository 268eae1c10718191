// A program as a process of its own, and what it says.
import { spawn } from "node:child_process";
import { once } from "node:events";
import { createInterface } from "node:readline";

export class Program {
    lines = [];
    #waiting = [];
    /** The number of lines when it was last told something. */
    #mark = 0;

    /** Starts it; resolves when it has printed its link. */
    static async run(file, options, env = process.env) {
        const program = this.spawned(file, options, { env });
        program.link = await program.line(/^https?:/);
        return program;
    }
    /** @param {object} how as of `spawn` */
    static spawned(file, options, how = {}) {
        if (!file) throw new Error("the environment does not name the program");
        const program = new this();
        program.process = spawn(file, options, how);
        program.exited = once(program.process, "exit").then(([status]) => status);
        for (const stream of [program.process.stdout, program.process.stderr]) {
            createInterface({ input: stream }).on("line", (line) => program.#hear(line));
        }
        return program;
    }
    /** The first line, past or future, that matches. */
    line(pattern, from = 0) {
        const found = this.lines.slice(from).find((line) => pattern.test(line));
        if (found !== undefined) return Promise.resolve(found);
        return new Promise((resolve, reject) => {
            this.#waiting.push({ pattern, resolve });
            this.exited.then(() =>
                setImmediate(reject, new Error(`ended without ${pattern}:\n${this.said}`)),
            );
        });
    }
    /** The same of lines since it was last told something. */
    answer(pattern, from = this.#mark) {
        return this.line(pattern, from);
    }
    /** Tells it a line. */
    tell(line) {
        this.#mark = this.lines.length;
        this.process.stdin.write(`${line}\n`);
    }
    get said() {
        return this.lines.join("\n");
    }
    kill() {
        this.process.kill("SIGKILL");
        return this.exited;
    }
    #hear(line) {
        this.lines.push(line);
        this.#waiting = this.#waiting.filter(
            ({ pattern, resolve }) => !pattern.test(line) || resolve(line),
        );
    }
}

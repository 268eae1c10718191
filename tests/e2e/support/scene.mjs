// The program that draws scenes for tests.
import assert from "node:assert/strict";

import { Program } from "./program.mjs";

export class Scene extends Program {
    static start(name, ...options) {
        return Scene.run(process.env.KIROWEB_SCENES, [name, ...options.map(String)]);
    }
    /** What it has told of its data; a gap is NaN there. */
    get told() {
        const lines = this.lines.filter((line) => line.startsWith("data "));
        return lines.map((line) =>
            JSON.parse(line.slice(5), (_, value) => (value === null ? NaN : value)),
        );
    }
    #isStreaming = false;
    /** Has it do something that ends with a frame of this outcome; the frame's number. */
    async draw(what = "draw", outcome = "painted") {
        this.tell(what);
        // Frames from before are not this one.
        if (this.#isStreaming) await this.answer(/^stream over$/);
        const from = this.#isStreaming ? this.lines.lastIndexOf("stream over") : undefined;
        this.#isStreaming = false;
        const line = await this.answer(/^frame /, from);
        const [, frame, became] = line.match(/^frame (\d+) (.*)$/);
        assert.equal(became, outcome);
        return Number(frame);
    }
    /** Has it draw one frame after the other, and ends when one had this outcome. */
    async stream(outcome = "painted") {
        this.#isStreaming = true;
        this.tell("stream");
        await this.answer(new RegExp(`^frame \\d+ ${outcome}$`));
    }
}

/** Asserts that values, as CSV, are what the upper axes of the scene "live" show after so many steps by
 * the scene's own rule, as far as 32-bit numbers can tell. */
export function assertLive(csv, steps) {
    const first = Math.max(0, steps - 41);
    const places = Array.from({ length: steps - first }, (_, i) => first + i);
    const wave = (i) => (i % 9 === 4 ? NaN : Math.sin(i * 0.25));
    const rows = (name, value) => places.map((i) => [name, i * 0.25, value(i)]);
    const wanted = [...rows('"wave, ""quoted"""', wave), ...rows("level", () => 0.5)];
    const [header, ...lines] = csv.trimEnd().split("\r\n");
    assert.equal(header, "series,x,y");
    const told = lines.map((line) => {
        const [, name, x, y] = /^(.*),(.*),(.*)$/.exec(line);
        return [name, Number(x), y === "" ? NaN : Number(y)];
    });
    const rounded = (all) => all.map(([name, ...values]) => [name, ...values.map(Math.fround)]);
    assert.deepEqual(rounded(told), rounded(wanted));
}

/** The values that the page shows in the first axes of a figure. */
export const shownValues = (page) =>
    page.evaluate(async () => {
        const [figure] = kirowebPage.figures.values();
        const [axes] = figure.axes.keys();
        return (await kirowebPage.worker.ask({ kind: "csv", axes: [axes] })).text;
    });

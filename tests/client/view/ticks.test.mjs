// What stands at an axis.
import assert from "node:assert/strict";
import { test } from "node:test";

import { chooseTicks, momentText, numberText } from "../../../client/page/ticks.mjs";

/** Seven pixels a character. */
const extent = (text) => 7 * Math.max(...text.split("\n").map((line) => line.length));
const room = (pixels) => ({ pixels, extent, gap: 14 });
const choose = (low, high, scale = "linear", pixels = 400) =>
    chooseTicks([low, high], scale, room(pixels));
const textsOf = ({ ticks, note }) => {
    const texts = ticks.map(({ text }) => text).filter((text) => text !== "");
    return note === "" ? texts.join() : `${texts.join()} ${note}`;
};
/** Whether no text lies on the same line of another one. */
const areApart = (texts, line, pixels) => {
    const lines = texts.map(({ at, text }) => ({ at: at * pixels, text: text.split("\n")[line] }));
    const said = lines.filter(({ text }) => text !== undefined);
    return said.slice(1).every(({ at, text }, i) => {
        return at - said[i].at >= (extent(text) + extent(said[i].text)) / 2;
    });
};
const day = Date.UTC(2026, 10, 21) / 1000;

test("Ticks are written for the numbers at hand", () => {
    const cases = [
        [[0, 10], "0,1,2,3,4,5,6,7,8,9,10"],
        [[-0.3, 0.1], "−0.30,−0.25,−0.20,−0.15,−0.10,−0.05,0,0.05,0.10"],
        [[101280, 101370], "101280,101300,101320,101340,101360"],
        [[0, 8e-9], "0,1,2,3,4,5,6,7,8 ×10⁻⁹"],
        [[0, 3e9], "0,0.5,1.0,1.5,2.0,2.5,3.0 ×10⁹"],
        [[1e15, 1e15 + 40], "0,5,10,15,20,25,30,35,40 +10¹⁵"],
        [[-1e15 - 40, -1e15], "−40,−35,−30,−25,−20,−15,−10,−5,0 −10¹⁵"],
        [[5, 5 + 8.1e-9], "0,1,2,3,4,5,6,7,8 ×10⁻⁹ +5"],
        [[0.1, 1000, "log"], "0.1,1,10,100,1000"],
        [[1e-9, 1e3, "log"], "10⁻⁸,10⁻⁶,10⁻⁴,10⁻²,10⁰,10²"],
        [[1, 30, "log"], "1,2,5,10,20"],
        [[20, 50, "log"], "20,25,30,35,40,45,50"],
        [
            [day - 7200, day + 10800, "time"],
            "22:00\n2026-11-20,23:00,00:00\n2026-11-21,01:00,02:00,03:00 UTC",
        ],
        [[day, day + 0.002, "time"], "00:00:00.000\n2026-11-21,00:00:00.001,00:00:00.002 UTC"],
        [[day, day + 5 * 86400, "time"], "21 Nov\n2026,22 Nov,23 Nov,24 Nov,25 Nov,26 Nov UTC"],
        [[day, day + 1.2e7, "time"], "Dec\n2026,Jan\n2027,Feb,Mar,Apr UTC"],
        [[day, day + 2e9, "time"], "2030,2040,2050,2060,2070,2080,2090 UTC"],
    ];
    const told = cases.map(([limits]) => [limits, textsOf(choose(...limits))]);
    assert.deepEqual(told, cases);
});

test("Wherever an axis lies, its texts are apart, inside, ascending and all different", () => {
    const exponents = [-290, -12, -9, -3, 0, 2, 5, 9, 15, 200];
    const spans = "0,1 -1,1 0.3,0.94 -7.77,-7.7 1,1.0000001"
        .split(" ")
        .map((span) => span.split(","));
    const limits = exponents.flatMap((exponent) =>
        spans.map((span) => span.map((end) => end * 10 ** exponent)),
    );
    const decades = [[1e-300, 1e300], [3, 4e5], ...limits.filter(([low]) => low > 0)];
    const begins = [-6e10, 0, day, day + 86399.5, 4e9];
    const lengths = [1e-4, 0.3, 7, 100, 4000, 5e4, 6e5, 3e6, 4e7, 1e9, 3e11];
    const times = begins.flatMap((begin) => lengths.map((length) => [begin, begin + length]));
    const by = { linear: limits, log: decades, time: times };
    const all = Object.entries(by).flatMap(([scale, ranges]) =>
        ranges.map((range) => [scale, range]),
    );
    for (const [scale, range] of all) {
        for (const pixels of [90, 240, 1000]) {
            const { ticks } = choose(...range, scale, pixels);
            const texts = ticks.filter(({ text }) => text !== "");
            const what = `${scale} ${range} ${pixels}: ${texts.map(({ text }) => text)}`;
            assert.ok(texts.length > (pixels < 300 ? 0 : 1) && texts.length < 40, what);
            const isInside = ({ at }) => at >= -1e-6 && at <= 1 + 1e-6;
            assert.ok(ticks.every(isInside), what);
            const different = new Set(texts.map(({ text }) => text)).size;
            assert.ok(different === texts.length || scale === "time", what);
            for (const line of [0, 1]) assert.ok(areApart(texts, line, pixels), what);
        }
    }
});

test("The engine's own ticks stand where they belong, as far as there is room", () => {
    const named = "5 five,1 one,1.01 close,20 beyond".split(",").map((one) => one.split(" "));
    const given = named.map(([at, text]) => [Number(at), text]);
    const { ticks } = chooseTicks([0, 10], "linear", room(300), given);
    const texts = ticks.filter(({ text }) => text !== "").map(({ at, text }) => `${at} ${text}`);
    assert.deepEqual(texts, ["0.1 one", "0.5 five"]);
});

test("Numbers and moments can be read", () => {
    const numbers = [0, 1.5, -2e-7, 1e9, 123456789, 0.1 + 0.2, NaN, -Infinity, 1e-300];
    const texts = "0 1.5 −2×10⁻⁷ 10⁹ 1.23457×10⁸ 0.3 – −Infinity 10⁻³⁰⁰";
    assert.equal(numbers.map((number) => numberText(number)).join(" "), texts);
    assert.equal(momentText(day + 3661.25, 0.01), "2026-11-21 01:01:01.25");
    assert.equal(momentText(-1, 5), "1969-12-31 23:59:59");
    assert.equal(momentText(1e20, 1), "10²⁰");
});

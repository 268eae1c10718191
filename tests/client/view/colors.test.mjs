// Whether series can be told apart by their colours, whoever looks.
import assert from "node:assert/strict";
import { readFileSync } from "node:fs";
import { test } from "node:test";

import { channelsOf, cycleColor } from "../../../client/page/colors.mjs";
import { SIGHTS, contrast, difference, labOf } from "../support/vision.mjs";

const style = readFileSync(new URL("../../../client/page/style.css", import.meta.url), "utf8");
const [light, dark] = [...style.matchAll(/--panel: (#[\da-f]{6})/g)].map(([, color]) => color);

test("Any two colours of the cycle are told apart, and each from the ground", () => {
    // Two pairs of those that were published for checking such a formula.
    assert.equal(difference([50, 2.6772, -79.7751], [50, 0, -82.7485]).toFixed(4), "2.0425");
    assert.equal(difference([50, 2.5, 0], [58, 24, 15]).toFixed(4), "19.4535");
    for (const ground of [light, dark]) {
        const named = Array.from({ length: 9 }, (_, i) => cycleColor(i, ground === dark));
        assert.equal(named.pop(), named[0], "eight of them");
        const colors = named.map((color) => channelsOf(color).slice(0, 3));
        colors.forEach((color, i) => {
            assert.ok(contrast(color, channelsOf(ground).slice(0, 3)) >= 3, named[i]);
            for (const [name, sight] of Object.entries(SIGHTS)) {
                for (let j = 0; j < i; ++j) {
                    const apart = difference(labOf(color, sight), labOf(colors[j], sight));
                    const least = name.startsWith("tritan") ? 10 : 12;
                    assert.ok(apart >= least, `${name}: ${named[j]} ${named[i]} ${apart}`);
                }
            }
        });
    }
});

// What the page draws, pixel by pixel against what the engine says of its data.
import assert from "node:assert/strict";
import { test } from "node:test";

import { contrast } from "../client/support/vision.mjs";
import { pictures, untilSettled } from "./support/pictures.mjs";
import { masksOf } from "./support/shapes.mjs";
import { Stage } from "./support/stage.mjs";

const stage = new Stage();
const GAP_COLOR = [0xf0, 0xa0, 0xd8];
const channels = (color) => [1, 3, 5].map((at) => parseInt(color.slice(at, at + 2), 16));
const isNear = (a, b) => a.every((part, i) => Math.abs(part - b[i]) <= 12);

/** No data without pixels, no pixel without data, and all of them of the series' colour. */
async function checkSeries(page, picture, data) {
    const { width, height, description } = picture;
    const place = picture.placer(data.y2 ? "y2" : "y");
    const { allowed, required } = await masksOf(page, data, { ...picture, place });
    const color = channels(description.series[0].color);
    const isColored = data.kind === "image" || data.kind === "colored";
    const drawn = [...picture.all()];
    const faults = {
        missing: picture.missing(required),
        surplus: drawn.filter(([column, row]) => !allowed[row * width + column]),
        colored: drawn.filter((at) => !isColored && !isNear(color, picture.at(...at))),
    };
    const where = `${description.title} at ${width} x ${height}`;
    assert.ok(required.includes(1), `${where}: nothing to be seen`);
    for (const [what, places] of Object.entries(faults)) {
        const some = places.slice(0, 5).join("; ");
        assert.equal(places.length, 0, `${where}: ${places.length} ${what}: ${some}`);
    }
    if (isColored) checkColors(picture, data, place);
}

const gray = (value, [low, high]) =>
    Number.isNaN(value)
        ? GAP_COLOR
        : Array(3).fill(Math.round(((value - low) / (high - low)) * 255));

/** The middle of each cell, or point, has the colour of its value. */
function checkColors(picture, { x, y, z, value, rows, limits }, place) {
    const columns = z ? z.length / rows[0] : 0;
    const within = ([low, high], share) => low + (high - low) * share;
    const middleOf = (i) =>
        z
            ? [
                  within(x, ((i % columns) + 0.5) / columns),
                  within(y, (Math.floor(i / columns) + 0.5) / rows[0]),
              ]
            : [x[i], y[i]];
    (z ?? value).forEach((one, i) => {
        const wanted = gray(one, limits);
        const found = picture.at(...place(...middleOf(i)).map(Math.floor));
        assert.ok(isNear(wanted, found), `${wanted}: ${found}`);
    });
}

/** Texts of ticks are different ones, side by side, and whole. */
function checkTicks(picture) {
    const { title } = picture.description;
    const [across, up] = ["x", "y"].map((which) =>
        picture.ticks[which].ticks.map(({ text }) => text).filter((text) => text !== ""),
    );
    for (const texts of [across, up]) {
        const isSame = texts.some((text, i) => text === texts[i - 1]);
        assert.ok(texts.length >= 2 && !isSame, `${title}: ${texts}`);
    }
    const { count, isClipped } = picture.textsBelow();
    assert.equal(count, across.length, `${title}: ${across}`);
    assert.ok(!isClipped, `${title}: ${across}`);
}

const RATIOS = [1, 2];
const SCHEMES = ["light", "dark"];
for (const deviceScaleFactor of RATIOS) {
    for (const colorScheme of SCHEMES) {
        test(`Series are drawn where their data are, ${deviceScaleFactor} x, ${colorScheme}`, async () => {
            const viewport = { width: 1600, height: 1100 };
            const page = await stage.page({ viewport, deviceScaleFactor, colorScheme });
            for (const name of ["kinds", "cases"]) {
                const scene = await stage.scene(name);
                await page.goto(scene.link);
                // Axes that got their final room with the first picture are there in the second.
                for (const frame of [0, 1]) {
                    scene.tell("draw");
                    assert.equal(await scene.answer(/^frame/), `frame ${frame} painted`);
                    await untilSettled(page);
                }
                const data = new Map(scene.told.map((one) => [one.axes, one]));
                for (const picture of await pictures(page)) {
                    const told = data.get(picture.description.id);
                    if (told.kind !== "text") await checkSeries(page, picture, told);
                    assert.ok(picture.all().next().value, "something is drawn");
                    checkTicks(picture);
                    data.delete(picture.description.id);
                }
                assert.equal(data.size, 0);
                assert.deepEqual(page.complaints, []);
                await page.goto("about:blank");
            }
        });
    }
}

for (const colorScheme of SCHEMES) {
    test(`On a phone everything can be read, ${colorScheme}`, async () => {
        const page = await stage.page({ viewport: { width: 360, height: 740 }, colorScheme });
        const scene = await stage.scene("labels");
        await page.goto(scene.link);
        scene.tell("draw");
        await scene.answer(/^frame 0 painted/);
        const seen = await page.evaluate(() => {
            const figure = document.querySelector(".figure");
            const channelsOf = (color) => color.match(/[\d.]+/g).map(Number);
            const ground = channelsOf(getComputedStyle(figure).backgroundColor);
            const texts = [...figure.querySelectorAll("h2, h3, .label span, .legend .name")];
            const room = document.documentElement.clientWidth;
            return {
                ground,
                texts: texts.map((element) => {
                    const { width, left, right, bottom } = element.getBoundingClientRect();
                    const frame = element.parentElement.getBoundingClientRect();
                    const isAcross =
                        left >= Math.max(0, frame.left - 1) && right <= frame.right + 1;
                    const isWhole =
                        width > 0 && isAcross && right <= room && bottom <= frame.bottom + 1;
                    const color = channelsOf(getComputedStyle(element).color);
                    return { text: element.textContent, isWhole, color };
                }),
            };
        });
        const whole = seen.texts.filter(({ isWhole }) => isWhole).map(({ text }) => text);
        for (const unit of ["(kg m s⁻²)", "(mPa)", "series 0", "series 7"]) {
            assert.ok(whole.includes(unit), `${unit} of ${whole}`);
        }
        for (const { text, color } of seen.texts) {
            assert.ok(contrast(color, seen.ground) >= 4.5, `${text}: ${color}`);
        }
    });
}

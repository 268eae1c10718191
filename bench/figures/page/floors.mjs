// The page of the floors: what an engineer would write by hand for one picture, with data that are
// there already. It is told what to draw, and says how often it has drawn it.

import { Connection, gatewayAddress } from "/kiroweb/protocol.mjs";

const WIDTH = 750;
const HEIGHT = 430;
const TOLD_AFTER = 10;
const SETS = 4;

const canvas = document.querySelector("canvas");
const context = canvas.getContext("2d");

/** @param {number} width @param {number} height */
function makeImage(width, height) {
    Object.assign(canvas, { width, height });
    canvas.style.width = `${WIDTH}px`;
    canvas.style.height = `${HEIGHT}px`;
    const image = new ImageData(width, height);
    return { image, pixels: new Uint32Array(image.data.buffer) };
}

/** Data to be drawn in turn. @param {number} count @param {(i: number, set: number) => number} of */
function makeSets(count, of) {
    return Array.from({ length: SETS }, (_, set) =>
        Float32Array.from({ length: count }, (__, i) => of(i, set)),
    );
}

/** A matrix as colours. */
function imageFloor() {
    const SIZE = 1024;
    const { image, pixels } = makeImage(SIZE, SIZE);
    const sets = makeSets(SIZE * SIZE, (i, set) => Math.sin((i % SIZE) / 50 + i / 1e5 + set));
    const table = Uint32Array.from({ length: 256 }, (_, i) => 0xff000000 | (i * 0x10101));
    return (frame) => {
        const values = sets[frame % SETS];
        for (let i = 0; i < values.length; ++i) pixels[i] = table[(values[i] * 127 + 128) | 0];
        context.putImageData(image, 0, 0);
    };
}

/** Points as squares. */
function pointsFloor() {
    const COUNT = 100_000;
    const SIZE = 6;
    const { image, pixels } = makeImage(WIDTH, HEIGHT);
    const xs = makeSets(COUNT, () => Math.random() * (WIDTH - SIZE));
    const ys = makeSets(COUNT, () => Math.random() * (HEIGHT - SIZE));
    return (frame) => {
        const x = xs[frame % SETS];
        const y = ys[frame % SETS];
        pixels.fill(0);
        for (let i = 0; i < COUNT; ++i) {
            const first = (y[i] | 0) * WIDTH + (x[i] | 0);
            for (let row = 0; row < SIZE; ++row) {
                const at = first + row * WIDTH;
                for (let k = 0; k < SIZE; ++k) pixels[at + k] = 0xffb27200;
            }
        }
        context.putImageData(image, 0, 0);
    };
}

/** A line that grows at its end: the least and the greatest sample of each column of pixels. */
function lineFloor() {
    const COUNT = 1_000_000;
    const NEW = 10_000;
    makeImage(WIDTH, HEIGHT);
    const [samples] = makeSets(COUNT, (i) => Math.sin(i / 20_000) + Math.random() / 4);
    const toPixel = (value) => (0.5 - value / 3) * HEIGHT;
    return () => {
        const added = samples.slice(0, NEW);
        samples.copyWithin(0, NEW);
        samples.set(added, COUNT - NEW);
        context.clearRect(0, 0, WIDTH, HEIGHT);
        for (let column = 0; column < WIDTH; ++column) {
            const end = ((column + 1) * COUNT) / WIDTH;
            let low = Infinity;
            let high = -Infinity;
            for (let i = Math.floor((column * COUNT) / WIDTH); i < end; ++i) {
                const value = samples[i];
                if (value < low) low = value;
                if (value > high) high = value;
            }
            context.fillRect(column, toPixel(high), 1, Math.max(1, toPixel(low) - toPixel(high)));
        }
    };
}

const floors = { image: imageFloor, points: pointsFloor, line: lineFloor };

const control = new Connection(
    gatewayAddress(),
    {
        onHello: () => control.publish("/bench/page", "0"),
        onText(_, text) {
            const draw = floors[JSON.parse(text)]();
            let frame = 0;
            const step = () => {
                draw(frame++);
                if (frame % TOLD_AFTER === 0) control.publish("/bench/page", String(frame));
                requestAnimationFrame(step);
            };
            requestAnimationFrame(step);
        },
    },
    { subscribe: ["/bench/control"] },
);

// Scenes of a test's own, and what is drawn of them.

import { limitsOf } from "../../../../client/page/worker/limits.mjs";
import { paintAxes } from "../../../../client/page/worker/painter.mjs";
import { Scene } from "../../../../client/page/worker/scene.mjs";

const NAMES = { Float64Array: "f64", Float32Array: "f32", Uint8Array: "u8" };
const ORDER = ["f64", "f32", "u8"];

/** Columns as a command and a block have them. An array of numbers goes as "f64". */
export function encode(columns) {
    const typed = Object.entries(columns)
        .map(([name, values]) => [name, Array.isArray(values) ? Float64Array.from(values) : values])
        .map(([name, values]) => [name, NAMES[values.constructor.name], values])
        .sort((a, b) => ORDER.indexOf(a[1]) - ORDER.indexOf(b[1]));
    const parts = typed.map(([, , { buffer, byteOffset, byteLength }]) =>
        Buffer.from(buffer, byteOffset, byteLength),
    );
    const data = Uint8Array.from(Buffer.concat(parts));
    return { count: typed[0][2].length, columns: typed.map((one) => one.slice(0, 2)), data };
}

/** A scene with a figure, 1, and axes in it, 2. */
export class Builder {
    #last = 2;
    constructor(axes = {}, scene = new Scene()) {
        this.scene = scene;
        this.scene.apply({ cmd: "create", id: 1, type: "figure" }, null);
        this.scene.apply({ cmd: "create", id: 2, type: "axes", parent: 1, ...axes }, null);
    }
    create(type, members = {}, columns = null) {
        const id = ++this.#last;
        const parent = type === "axes" ? 1 : 2;
        this.scene.apply({ cmd: "create", id, type, parent, ...members }, null);
        if (columns) this.data(id, 0, columns);
        return id;
    }
    set(id, members) {
        this.scene.apply({ cmd: "set", id, ...members }, null);
    }
    data(id, first, values) {
        const { count, columns, data } = encode(values);
        this.scene.apply({ cmd: "data", id, first, count, columns }, data);
    }
    find(id) {
        return this.scene.find(id);
    }
}

/** What a scene has, by values. */
export const contentOf = (scene) =>
    scene.items.map(({ id, type, parent, properties, columns, given }) => {
        const kept = Object.entries(columns).map(([name, column]) => {
            const { elements, offset, begin, end } = column;
            const values = [...elements.subarray(begin - offset, end - offset)];
            return [name, elements.constructor.name, begin, values];
        });
        return [id, type, parent?.id, { ...properties }, kept.sort(), given];
    });

export const THEME = { ground: "#ffffff", text: "#222222", dark: false };

/** How a scene is looked at. */
export function look({ views = [], hidden = [], sizes = [] } = {}) {
    return { views: new Map(views), hidden: new Set(hidden), sizes: new Map(sizes), theme: THEME };
}

/** A 2d context that writes down what is drawn, with the path and the style. */
export class Recorder {
    drawn = [];
    #path = [];
    #dash = [];
    beginPath() {
        this.#path = [];
    }
    #go(...step) {
        this.#path.push(step);
    }
    moveTo = (x, y) => this.#go("M", x, y);
    lineTo = (x, y) => this.#go("L", x, y);
    closePath = () => this.#go("Z");
    arc = (x, y, radius) => this.#go("O", x, y, radius);
    setLineDash(dash) {
        this.#dash = dash;
    }
    #draw(kind, members) {
        const isLine = kind.startsWith("stroke");
        const line = isLine && { width: this.lineWidth };
        this.drawn.push({
            kind,
            ...members,
            color: isLine ? this.strokeStyle : this.fillStyle,
            ...line,
        });
    }
    fill = (rule) => this.#draw("fill", { path: this.#path, rule });
    stroke = () => this.#draw("stroke", { path: this.#path, dash: this.#dash });
    fillRect = (...rect) => this.#draw("fillRect", { rect });
    strokeText = (text, x, y) => this.#draw("strokeText", { text, x, y });
    fillText = (text, x, y) =>
        this.#draw("fillText", { text, x, y, anchor: this.textAlign, font: this.font });
}

/** A canvas that writes down what is drawn, and what is copied; empty when it gets its size. */
export class FakeCanvas extends Recorder {
    canvas = this;
    getContext = () => this;
    set width(_) {
        this.drawn = [];
    }
    drawImage({ drawn }) {
        this.drawn.push({ kind: "copy", drawn: [...drawn] });
    }
    transferToImageBitmap() {
        return { drawn: this.drawn.splice(0) };
    }
}

/** A path as a text. */
export const spell = (path) =>
    path
        .map(([kind, ...numbers]) => kind + numbers.map((n) => Number(n.toFixed(6))).join())
        .join(" ");

/** What is drawn of the axes 2, of this size in pixels. */
export function paint({ scene }, { width = 100, height = 100, ratio = 1, ...shown } = {}) {
    const context = new Recorder();
    const pictures = [];
    const drawPixels = (fill, isFirst) => {
        const pixels = new Uint32Array(width * height);
        fill(pixels);
        pictures.push({ pixels, isFirst });
    };
    const how = look(shown);
    const limits = limitsOf(scene, how).get(2);
    const size = { width, height, ratio };
    const surface = { context, isVector: false, drawPixels };
    const errors = paintAxes(scene.find(2), limits, size, how, surface);
    return { drawn: context.drawn, pictures, errors: errors.map((error) => error.message) };
}

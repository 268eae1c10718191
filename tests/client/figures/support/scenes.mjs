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
    const described = typed.map(([name, type]) => [name, type]);
    return {
        count: typed[0][2].length,
        columns: described,
        data: Uint8Array.from(Buffer.concat(parts)),
    };
}

/** A scene with a figure, 1, and axes in it, 2. */
export class Builder {
    scene = new Scene();
    #last = 2;
    constructor(axes = {}) {
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

/** A 2d context that writes down what is drawn: "fillRect", "stroke", "fill", "fillText" and
 * "strokeText", with
 * the path and the style. */
export class Recorder {
    drawn = [];
    #path = [];
    #dash = [];
    beginPath() {
        this.#path = [];
    }
    moveTo(x, y) {
        this.#path.push(["M", x, y]);
    }
    lineTo(x, y) {
        this.#path.push(["L", x, y]);
    }
    closePath() {
        this.#path.push(["Z"]);
    }
    arc(x, y, radius) {
        this.#path.push(["O", x, y, radius]);
    }
    setLineDash(dash) {
        this.#dash = dash;
    }
    fill(rule) {
        this.drawn.push({ kind: "fill", path: this.#path, color: this.fillStyle, rule });
    }
    stroke() {
        const { strokeStyle: color, lineWidth: width } = this;
        this.drawn.push({ kind: "stroke", path: this.#path, color, width, dash: this.#dash });
    }
    fillRect(...rect) {
        this.drawn.push({ kind: "fillRect", rect, color: this.fillStyle });
    }
    strokeText(text, x, y) {
        const { strokeStyle: color, lineWidth: width } = this;
        this.drawn.push({ kind: "strokeText", text, x, y, color, width });
    }
    fillText(text, x, y) {
        const { fillStyle: color, textAlign: anchor, font } = this;
        this.drawn.push({ kind: "fillText", text, x, y, color, anchor, font });
    }
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

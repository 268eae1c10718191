// A surface that writes SVG: what painters draw becomes elements.

import { escapeXml } from "../xml.mjs";

/** @typedef {import("./painter.mjs").Context} Context */
/** @typedef {import("./painter.mjs").Surface} Surface */

const ANCHORS = { left: "start", center: "middle", right: "end" };

/** @param {number} value */
const short = (value) => String(Math.round(value * 100) / 100);

/** A colour and its opacity, as old readers of SVG want it.
 * @param {string} kind "fill" or "stroke" @param {string} color */
function paintOf(kind, color) {
    const parts = /^rgba\((\d+),(\d+),(\d+),([\d.e-]+)\)$/.exec(color);
    if (parts) {
        const [, red, green, blue, alpha] = parts;
        return `${kind}="rgb(${red},${green},${blue})" ${kind}-opacity="${alpha}"`;
    }
    const isPale = color.startsWith("#") && color.length === 9;
    if (!isPale) return `${kind}="${color}"`;
    const opacity = Number.parseInt(color.slice(7), 16) / 255;
    return `${kind}="${color.slice(0, 7)}" ${kind}-opacity="${short(opacity)}"`;
}

/** The part of a 2d context that painters use. @implements {Context} */
class SvgContext {
    fillStyle = "#000000";
    strokeStyle = "#000000";
    lineWidth = 1;
    /** @type {CanvasLineCap} */
    lineCap = "butt";
    /** @type {CanvasLineJoin} */
    lineJoin = "bevel";
    font = "";
    /** @type {CanvasTextAlign} */
    textAlign = "left";
    /** @type {CanvasTextBaseline} */
    textBaseline = "middle";
    #path = "";
    #dash = "";
    /** Of one colour. */
    #rectangles = { path: "", color: "" };
    /** @type {(string | Promise<string>)[]} */
    #elements = [];

    /** @param {string | Promise<string>} element */
    add(element) {
        const { path, color } = this.#rectangles;
        if (path) this.#elements.push(`<path d="${path}" ${paintOf("fill", color)}/>`);
        this.#rectangles.path = "";
        if (element) this.#elements.push(element);
    }
    /** @returns {Promise<string>} */
    async finish() {
        this.add("");
        return (await Promise.all(this.#elements)).join("\n");
    }

    beginPath() {
        this.#path = "";
    }
    /** @param {number} x @param {number} y */
    moveTo(x, y) {
        this.#path += `M${short(x)} ${short(y)}`;
    }
    /** @param {number} x @param {number} y */
    lineTo(x, y) {
        this.#path += `L${short(x)} ${short(y)}`;
    }
    closePath() {
        this.#path += "Z";
    }
    /** A whole circle. @param {number} x @param {number} y @param {number} radius */
    arc(x, y, radius) {
        const [r, across] = [short(radius), short(2 * radius)];
        this.moveTo(x + radius, y);
        this.#path += `a${r} ${r} 0 1 0 -${across} 0a${r} ${r} 0 1 0 ${across} 0Z`;
    }
    /** @param {any} [rule] */
    fill(rule = "nonzero") {
        if (!this.#path) return;
        this.add(
            `<path d="${this.#path}" fill-rule="${rule}" ${paintOf("fill", this.fillStyle)}/>`,
        );
    }
    stroke() {
        if (!this.#path) return;
        this.add(`<path d="${this.#path}" ${this.#pen()}/>`);
    }
    #pen() {
        const color = paintOf("stroke", this.strokeStyle);
        const dash = this.#dash && ` stroke-dasharray="${this.#dash}"`;
        return `fill="none" ${color} stroke-width="${short(this.lineWidth)}" stroke-linecap="${this.lineCap}" stroke-linejoin="${this.lineJoin}"${dash}`;
    }
    /** @param {number} x @param {number} y @param {number} width @param {number} height */
    fillRect(x, y, width, height) {
        if (this.#rectangles.color !== this.fillStyle) this.add("");
        this.#rectangles.color = this.fillStyle;
        this.#rectangles.path += `M${short(x)} ${short(y)}h${short(width)}v${short(height)}h${short(-width)}Z`;
    }
    /** @param {string} text @param {number} x @param {number} y */
    fillText(text, x, y) {
        this.#text(text, x, y, paintOf("fill", this.fillStyle));
    }
    /** @param {string} text @param {number} x @param {number} y */
    strokeText(text, x, y) {
        this.#text(text, x, y, this.#pen());
    }
    /** @param {string} text @param {number} x @param {number} y @param {string} paint */
    #text(text, x, y, paint) {
        const [size, ...family] = this.font.split(" ");
        const anchor = ANCHORS[/** @type {keyof typeof ANCHORS} */ (this.textAlign)];
        const style = `font-size="${size}" font-family="${escapeXml(family.join(" "))}" text-anchor="${anchor}" dominant-baseline="central"`;
        this.add(
            `<text x="${short(x)}" y="${short(y)}" ${style} ${paint}>${escapeXml(text)}</text>`,
        );
    }
    /** @param {number[]} dash */
    setLineDash(dash) {
        this.#dash = dash.map(short).join(" ");
    }
}

/** @implements {Surface} */
export class SvgSurface {
    #width;
    #height;
    context = new SvgContext();
    isVector = true;

    /** @param {number} width @param {number} height in CSS pixels */
    constructor(width, height) {
        this.#width = width;
        this.#height = height;
    }

    /** Pixels are embedded. @param {(pixels: Uint32Array) => void} fill */
    drawPixels(fill) {
        const image = new ImageData(this.#width, this.#height);
        fill(new Uint32Array(image.data.buffer));
        this.context.add(this.#embed(image));
    }

    /** @param {ImageData} image @returns {Promise<string>} */
    async #embed(image) {
        const canvas = new OffscreenCanvas(this.#width, this.#height);
        canvas.getContext("2d")?.putImageData(image, 0, 0);
        const blob = await canvas.convertToBlob({ type: "image/png" });
        const bytes = new Uint8Array(await blob.arrayBuffer());
        let characters = "";
        for (const byte of bytes) characters += String.fromCharCode(byte);
        const href = `data:image/png;base64,${btoa(characters)}`;
        return `<image width="${this.#width}" height="${this.#height}" href="${href}"/>`;
    }

    /** @returns {Promise<string>} the elements */
    finish() {
        return this.context.finish();
    }
}

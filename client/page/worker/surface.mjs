// A canvas on which axes are drawn.

/** @typedef {import("./painter.mjs").Surface} Surface */

/** @implements {Surface} */
export class CanvasSurface {
    #canvas;
    /** Kept, since they are large. @type {ImageData | null} */
    #image = null;
    /** @type {OffscreenCanvasRenderingContext2D | null} */
    #layer = null;
    isVector = false;

    /** @param {OffscreenCanvas} canvas */
    constructor(canvas) {
        this.#canvas = canvas;
        const context = canvas.getContext("2d");
        if (!context) throw new Error("no 2d context");
        this.context = context;
    }

    /** Makes it empty. @param {import("./painter.mjs").Size} size */
    begin({ width, height }) {
        const { context } = this;
        if (this.#canvas.width === width && this.#canvas.height === height) {
            context.clearRect(0, 0, width, height);
            return;
        }
        this.#canvas.width = width;
        this.#canvas.height = height;
        this.#image = null;
        this.#layer = null;
    }

    /** @param {(pixels: Uint32Array) => void} fill @param {boolean} isFirst */
    drawPixels(fill, isFirst) {
        const { width, height } = this.#canvas;
        this.#image ??= new ImageData(width, height);
        const pixels = new Uint32Array(this.#image.data.buffer);
        pixels.fill(0);
        fill(pixels);
        if (isFirst) {
            this.context.putImageData(this.#image, 0, 0);
            return;
        }
        this.#layer ??= new OffscreenCanvas(width, height).getContext("2d");
        if (!this.#layer) throw new Error("no 2d context");
        this.#layer.putImageData(this.#image, 0, 0);
        this.context.drawImage(this.#layer.canvas, 0, 0);
    }

    /** @param {OffscreenCanvas} canvas */
    drawCanvas = (canvas) => this.context.drawImage(canvas, 0, 0);

    /** What was drawn. @returns {ImageBitmap} */
    take() {
        return this.#canvas.transferToImageBitmap();
    }
}

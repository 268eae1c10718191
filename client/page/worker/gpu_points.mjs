// Many points by WebGL, where a GPU is really there: the same picture as the stamps make.

import { channelsOf } from "../colors.mjs";
import { GREATEST_RADIUS, LOOKS, RIM, stepOf, STEPS } from "./stamps.mjs";

/** @typedef {import("./series/scatter.mjs").Points} Points */

/** WebGL starts on these, too; they take many times as long as the stamps. What hides its name may
 * be one of them. */
const SOFTWARE = /swiftshader|llvmpipe|softpipe|basic render|software|^(mozilla|webkit webgl|)$/i;

/** @param {string} renderer its unmasked name @returns {boolean} */
export const isGpu = (renderer) => !SOFTWARE.test(renderer.trim());

/** Of a point: column, row and radius as floats, and four bytes of colour. */
const WORDS = 4;
const BYTES = WORDS * Float32Array.BYTES_PER_ELEMENT;
const COLOR_AT = 3;

// A square of pixels for each point. The offset is whole in the middle of a pixel, as it is in a
// stamp.
const VERTEX = `#version 300 es
layout(location = 0) in vec3 point;
layout(location = 1) in vec4 color;
uniform vec2 size;
out vec2 offset;
flat out float radius;
flat out vec4 tint;
void main() {
    vec2 corner = vec2(gl_VertexID & 1, gl_VertexID >> 1) * 2.0 - 1.0;
    offset = corner * (ceil(point.z) + 0.5);
    radius = point.z;
    tint = color;
    vec2 at = (point.xy + 0.5 + offset) / size * 2.0 - 1.0;
    gl_Position = vec4(at.x, -at.y, 0.0, 1.0);
}`;

// How opaque a pixel is decides, as its depth, which of two is seen; of equal ones the later.
const FRAGMENT = `#version 300 es
precision highp float;
in vec2 offset;
flat in float radius;
flat in vec4 tint;
uniform vec2 look;
out vec4 pixel;
void main() {
    float far = length(floor(offset + 0.5));
    float covered = clamp(radius + 0.5 - far, 0.0, 1.0);
    float rim = clamp(far - radius * ${1 - RIM} + 0.5, 0.0, 1.0);
    float level = floor(covered * max(look.x, rim) * look.y + 0.5) / look.y;
    if (level == 0.0) discard;
    pixel = vec4(tint.rgb, 1.0) * tint.a * level;
    gl_FragDepth = 1.0 - level;
}`;

/** The GPU, for all pictures of points. It is looked for when it is first wanted. */
class GpuPoints {
    #canvas = /** @type {OffscreenCanvas | null} */ (null);
    /** Undefined: nobody has looked; null: none. @type {WebGL2RenderingContext | null | undefined} */
    #gl;
    /** @type {Record<"size" | "look", WebGLUniformLocation | null>} */
    #uniforms = { size: null, look: null };
    #floats = new Float32Array(0);
    #colors = new Uint32Array(0);
    /** Called when the GPU is gone, perhaps with something that was drawn. */
    whenLost = () => {};

    /** Draws points, except those that are too large for a stamp.
     * @param {Points} points
     * @param {{width: number, height: number, color: string}} place in pixels
     * @returns {OffscreenCanvas | null} the picture in its upper left corner; null: there is no GPU */
    draw(points, { width, height, color }) {
        if (this.#gl === undefined) this.#gl = this.#begin();
        const gl = this.#gl;
        const canvas = this.#canvas;
        if (!gl || !canvas) return null;
        fit(canvas, width, height);
        const count = this.#pack(points, { width, height, color });
        gl.viewport(0, gl.drawingBufferHeight - height, width, height);
        gl.clear(gl.COLOR_BUFFER_BIT | gl.DEPTH_BUFFER_BIT);
        gl.bufferData(gl.ARRAY_BUFFER, this.#floats.subarray(0, count * WORDS), gl.STREAM_DRAW);
        const { inside, levels } = points.colors ? LOOKS.colored : LOOKS.plain;
        gl.uniform2f(this.#uniforms.size, width, height);
        gl.uniform2f(this.#uniforms.look, inside, levels);
        gl.drawArraysInstanced(gl.TRIANGLE_STRIP, 0, 4, count);
        const isWhole =
            gl.drawingBufferWidth === canvas.width && gl.drawingBufferHeight === canvas.height;
        return isWhole && !gl.isContextLost() ? canvas : null;
    }

    /** @returns {WebGL2RenderingContext | null} */
    #begin() {
        if (typeof OffscreenCanvas === "undefined") return null;
        const canvas = new OffscreenCanvas(1, 1);
        const gl = canvas.getContext("webgl2", { antialias: false, depth: true });
        if (!gl) return null;
        const names = gl.getExtension("WEBGL_debug_renderer_info");
        const renderer = gl.getParameter(names ? names.UNMASKED_RENDERER_WEBGL : gl.RENDERER);
        const program = isGpu(String(renderer)) ? linked(gl) : null;
        if (!program) return null;
        this.#uniforms.size = gl.getUniformLocation(program, "size");
        this.#uniforms.look = gl.getUniformLocation(program, "look");
        gl.useProgram(program);
        gl.bindBuffer(gl.ARRAY_BUFFER, gl.createBuffer());
        gl.vertexAttribPointer(0, COLOR_AT, gl.FLOAT, false, BYTES, 0);
        const colorAt = COLOR_AT * Float32Array.BYTES_PER_ELEMENT;
        gl.vertexAttribPointer(1, 4, gl.UNSIGNED_BYTE, true, BYTES, colorAt);
        for (const index of [0, 1]) {
            gl.enableVertexAttribArray(index);
            gl.vertexAttribDivisor(index, 1);
        }
        gl.enable(gl.DEPTH_TEST);
        gl.depthFunc(gl.LEQUAL);
        canvas.addEventListener("webglcontextlost", () => {
            this.#gl = null;
            this.#canvas = null;
            this.whenLost();
        });
        this.#canvas = canvas;
        return gl;
    }

    /** Places and radii as the stamps have them; what is not to be seen is left out.
     * @param {Points} points @param {{width: number, height: number, color: string}} place
     * @returns {number} how many */
    #pack({ x, y, radii, colors }, { width, height, color }) {
        if (this.#floats.length < x.length * WORDS) {
            this.#floats = new Float32Array(x.length * WORDS);
            this.#colors = new Uint32Array(this.#floats.buffer);
        }
        const floats = this.#floats;
        const [same] = new Uint32Array(Uint8Array.from(channelsOf(color)).buffer);
        let at = 0;
        for (let i = 0; i < x.length; ++i) {
            const radius = typeof radii === "number" ? radii : radii[i];
            if (!(radius > 0 && radius <= GREATEST_RADIUS)) continue;
            const stepped = stepOf(radius) / STEPS;
            const half = Math.ceil(stepped);
            // What is not a number is not within.
            if (!(x[i] > -half && x[i] < width + half)) continue;
            if (!(y[i] > -half && y[i] < height + half)) continue;
            floats[at] = Math.floor(x[i]);
            floats[at + 1] = Math.floor(y[i]);
            floats[at + 2] = stepped;
            this.#colors[at + COLOR_AT] = colors ? colors[i] : same;
            at += WORDS;
        }
        return at / WORDS;
    }
}

export const gpuPoints = new GpuPoints();

/** Axes of different sizes take turns: it grows, and shrinks only after something like a picture that
 * was saved. @param {OffscreenCanvas} canvas @param {number} width @param {number} height at least */
function fit(canvas, width, height) {
    const SPARE = 8;
    const isLarge = canvas.width * canvas.height > SPARE * width * height;
    const wanted = {
        width: isLarge ? width : Math.max(canvas.width, width),
        height: isLarge ? height : Math.max(canvas.height, height),
    };
    // To set a size, also the same one, makes the canvas anew.
    if (canvas.width !== wanted.width) canvas.width = wanted.width;
    if (canvas.height !== wanted.height) canvas.height = wanted.height;
}

/** @param {WebGL2RenderingContext} gl @returns {WebGLProgram | null} null: it is not taken */
function linked(gl) {
    const program = gl.createProgram();
    const shaders = /** @type {[number, string][]} */ ([
        [gl.VERTEX_SHADER, VERTEX],
        [gl.FRAGMENT_SHADER, FRAGMENT],
    ]);
    for (const [kind, source] of shaders) {
        const shader = gl.createShader(kind);
        if (!shader || !program) return null;
        gl.shaderSource(shader, source);
        gl.compileShader(shader);
        gl.attachShader(program, shader);
    }
    gl.linkProgram(program);
    return gl.getProgramParameter(program, gl.LINK_STATUS) ? program : null;
}

// The worker's entry.

import { Session } from "./session.mjs";

/** @typedef {Pick<Worker, "postMessage" | "onmessage"> & AnimationFrameProvider} Scope */

const scope = /** @type {Scope} */ (/** @type {unknown} */ (globalThis));
/** Once an animation frame, or what else goes on, is over, a message on this channel runs its tasks. */
const frameEnd = new MessageChannel();
/** @type {(() => void)[]} */
const afterPaint = [];
frameEnd.port1.onmessage = () => {
    for (const call of afterPaint.splice(0)) call();
};

const session = new Session({
    post: (message, moved = []) => scope.postMessage(message, moved),
    onFrame: (call) => scope.requestAnimationFrame(call),
    afterPaint: (call) => {
        if (afterPaint.push(call) === 1) frameEnd.port2.postMessage(null);
    },
    now: () => Math.round((performance.timeOrigin + performance.now()) * 1000),
});

scope.onmessage = (/** @type {MessageEvent} */ { data }) => session.receive(data);
addEventListener("error", (event) => session.report(new Error(event.message)));
addEventListener("unhandledrejection", (event) => session.report(new Error(String(event.reason))));

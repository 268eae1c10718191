// How far two clocks are apart: the arithmetic.
import assert from "node:assert/strict";
import { test } from "node:test";

import { EngineClock } from "../../client/engine_clock.mjs";

test("The engine's clock is known up to half of the shortest of the last round trips", (t) => {
    let now = 1e6;
    let gatewayAhead = 5000;
    let next = () => {};
    let answered = () => {};
    t.mock.method(globalThis, "setTimeout", (call) => (next = call));
    const clearTimer = t.mock.method(globalThis, "clearTimeout", () => {}).mock;
    const clock = new EngineClock(
        () => now,
        (then) => (answered = then),
    );
    /** The question takes "there" microseconds, the answer "back". */
    const exchange = (there, back, engine = { engineAhead: 0, uncertainty: 0 }) => {
        next();
        const time = (now += there) + gatewayAhead;
        now += back;
        answered({ time, ...engine });
        return clock.clock;
    };
    next = () => clock.begin();
    assert.equal(exchange(1, 1, {}), null, "its gateway does not know the engine's clock");
    for (const [there, back, ahead, uncertainty] of [
        [900, 100, 5000, 1],
        [0, 0, 5000, 0],
    ]) {
        assert.deepEqual(exchange(there, back), { ahead, uncertainty, shift: ahead });
    }
    // However the trips differ, the truth lies within; the shortest counts while it is one of 16.
    next = () => clock.begin();
    for (const [there, back, ahead, uncertainty] of [
        [900, 100, 5400, 500],
        [0, 400, 4800, 200],
        [4000, 0, 4800, 200],
        ...Array(14).fill([1000, 0, 4800, 200]),
        [1000, 0, 5500, 500],
    ]) {
        assert.deepEqual(exchange(there, back), { ahead, uncertainty, shift: ahead });
        assert.ok(Math.abs(ahead - gatewayAhead) <= uncertainty);
    }
    gatewayAhead = -7000; // somebody has set it
    assert.deepEqual(exchange(800, 800), { ahead: -7000, uncertainty: 800, shift: -7000 });
    const apart = exchange(800, 800, { engineAhead: 6000, uncertainty: 201 });
    assert.deepEqual(apart, { ahead: -1000, uncertainty: 1001, shift: 0 }, "or they are not apart");
    clock.stop();
    assert.deepEqual(clearTimer.calls[0].arguments, [next]);
    next = () => assert.fail("a gateway of an earlier version is not asked again");
    clock.begin();
    answered({});
    assert.deepEqual(clock.clock, apart);
});

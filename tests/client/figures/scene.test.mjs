// Commands carried out, or refused as a whole.
import assert from "node:assert/strict";
import { test } from "node:test";

import { describe } from "../../../client/page/worker/description.mjs";
import { TYPES, readProperties } from "../../../client/page/worker/vocabulary.mjs";
import { Builder, contentOf, encode, look } from "./support/scenes.mjs";

/** Axes, 2, and in them a line, 3, of two elements. */
function start() {
    const builder = new Builder();
    builder.create("line", { name: "l", width: 3 }, { x: [1, 2], y: [3, 4] });
    return builder;
}

const two = encode({ x: [1, 2], y: [3, 4] });
const command = (cmd, members) => ({ cmd, ...members });
const data = (members) => command("data", { id: 3, first: 2, ...two, ...members });
const columns = (...all) => ({ columns: all.map((column) => column.split(" ")) });

const REFUSED = [
    [command("jump", { id: 3 }), /no such command/],
    [command("set", { id: 77, name: "x" }), /no object 77/],
    [command("set", { id: "3", name: "x" }), /no object 3/],
    [command("remove", {}), /no object undefined/],
    [command("set", { id: 3, name: "x", color: "red" }), /"color" is not a colour/],
    [command("set", { id: 3, name: "x", width: NaN }), /"width" is not a size/],
    [command("set", { id: 3, name: "x", keep: -1 }), /"keep" is not a count/],
    [command("set", { id: 2, title: "x", x: { limits: [2, 1] } }), /"limits" is not limits/],
    [command("set", { id: 2, title: "x", x: [] }), /"x" is not an axis/],
    [command("set", { id: 2, title: "x", y: { ticks: [[1]] } }), /"ticks" is not ticks/],
    [command("create", { id: 3, type: "line", parent: 2 }), /there is an object 3/],
    [command("create", { id: 0, type: "line", parent: 2 }), /0 is no object's number/],
    [command("create", { id: 9, type: "line", parent: 3 }), /a line cannot stand there/],
    [command("create", { id: 9, type: "line" }), /a line cannot stand there/],
    [command("create", { id: 9, type: "figure", parent: 1 }), /a figure cannot stand there/],
    [command("create", { id: 9, type: "line", parent: 2, steps: "up" }), /"steps" is not one of/],
    [data({ first: 1 }), /element 1 comes after 2/],
    [data({ first: -2 }), /element -2/],
    [data({ first: 0, count: 3 }), /32 bytes, not 48/],
    [data({ first: 0, count: 1.5 }), /1.5 elements/],
    [data({ first: 0, count: -1 }), /-1 elements/],
    [data({ first: 0, columns: null }), /no columns/],
    [data({ first: 0, columns: [["x", "f64"]] }), /columns x, wanted x,y/],
    [data({ first: 0, ...columns("x f64", "x f64", "y f64") }), /columns x,y/],
    [data({ first: 0, ...columns("x f64", "y f16") }), /a column of no type/],
    [data({ first: 0, ...columns("x f64", "y f64", "z u8") }), /columns x,y,z/],
    [data({ id: 2, first: 0 }), /an object without elements/],
];

test("A command that cannot be carried out says why and changes nothing", () => {
    for (const [refused, reason] of REFUSED) {
        const { scene } = start();
        const before = contentOf(scene);
        assert.throws(() => scene.apply(refused, refused.data ?? null), reason);
        assert.deepEqual(contentOf(scene), before, reason.source);
    }
});

test("Objects are made, changed and removed with all in them", () => {
    const builder = start();
    builder.set(3, { name: "n", width: null, unheard: 1, constructor: 2 });
    const { name, width, unheard } = builder.find(3).properties;
    assert.deepEqual([name, width, unheard], ["n", 1.5, undefined]);
    builder.set(2, { x: { label: "t", scale: "time" } });
    const { x } = builder.find(2).properties;
    assert.deepEqual(x, { label: "t", unit: "", scale: "time", limits: null, ticks: null });
    builder.scene.changed.clear();
    builder.scene.isRestructured = false;
    builder.data(3, 2, { x: [5], y: [6] });
    assert.deepEqual([[...builder.scene.changed], builder.scene.isRestructured], [[2], false]);
    builder.data(3, 0, { x: [7], y: Float32Array.of(8) });
    assert.equal(builder.find(3).given, 1);
    builder.set(3, { keep: 0 });
    assert.equal(builder.find(3).places.begin, 1);
    builder.scene.apply(command("remove", { id: 1 }), null);
    assert.deepEqual([builder.find(3), builder.scene.figures], [undefined, []]);
});

/** Values, of which each property takes some. */
const VALUES = [
    ...[true, false, 0.5, 2, [0.25, 0.5], "other", ["a"], "#123456", "y2", "gray", "dashed"],
    ...["vertical", "center", "after", { limits: [1, 2] }, { unit: "m" }, null],
];

test("What is set is described again if, and only if, its description is another one then", () => {
    const isTaken = (properties, name, value) => {
        try {
            readProperties(properties, { [name]: value });
            return true;
        } catch {
            return false;
        }
    };
    for (const [type, { properties, family }] of Object.entries(TYPES)) {
        const builder = new Builder();
        const { scene } = builder;
        const parent = { axes: 1, control: 1, series: 2 }[family];
        scene.apply(command("create", { id: 9, type, ...(parent && { parent }) }), null);
        if (type === "scatter") builder.data(9, 0, { x: [1], y: [1], value: [1] });
        const described = () => JSON.stringify(describe(scene, look(), new Map()));
        for (const name of Object.keys(properties)) {
            const taken = VALUES.filter((value) => isTaken(properties, name, value));
            assert.ok(taken.length > 1, `${type} ${name}: ${taken}`);
            for (const value of taken) {
                const before = described();
                scene.isRestructured = false;
                builder.set(9, { [name]: value });
                const isOther = described() !== before;
                assert.equal(scene.isRestructured, isOther, `${type} ${name} ${value}`);
            }
        }
    }
});

test("An object of a type that is not known shows nothing, with all in it", () => {
    const builder = start();
    builder.create("hologram", { name: 5 });
    builder.scene.apply(command("create", { id: 5, type: "line", parent: 4 }), null);
    builder.scene.apply(data({ id: 5, first: 9, count: "?" }), two.data);
    builder.set(4, { name: "x" });
    assert.equal(builder.find(2).childrenOf("series").length, 1);
});

test("What somebody else looks at stays as it was", () => {
    const builder = start();
    const copy = builder.scene.snapshot();
    const before = contentOf(copy);
    builder.data(3, 2, { x: [5], y: [6] });
    builder.set(3, { name: "other" });
    builder.create("text", { text: "t" });
    assert.deepEqual(contentOf(copy), before);
    assert.equal(copy.find(3).parent, copy.find(2));
});

// What the module promises to those who use it: declarations, example, close codes.
import assert from "node:assert/strict";
import { execFileSync } from "node:child_process";
import { mkdtempSync, readdirSync, readFileSync, rmSync, writeFileSync } from "node:fs";
import { tmpdir } from "node:os";
import { join } from "node:path";
import { test } from "node:test";
import { fileURLToPath, pathToFileURL } from "node:url";

import { CLOSE_CODES, nextAttempt } from "../../client/close_codes.mjs";
import { WebSocket } from "./support/packages.mjs";
import { ScriptedGateway } from "./support/scripted_gateway.mjs";

const ROOT = fileURLToPath(new URL("../../", import.meta.url));
const CLIENT = join(ROOT, "client");
const read = (...path) => readFileSync(join(ROOT, ...path), "utf8");

function folder(t) {
    const path = mkdtempSync(join(tmpdir(), "kiroweb-"));
    t.after(() => rmSync(path, { recursive: true }));
    return path;
}
function compile(...options) {
    const compiler = join(CLIENT, "node_modules/typescript/bin/tsc");
    try {
        execFileSync(process.execPath, [compiler, ...options], { encoding: "utf8" });
    } catch (error) {
        assert.fail(error.stdout);
    }
}
const exampleIn = (text) => /```js\n([^]*?)```/.exec(text)[1];

test("The declarations are those of the source", (t) => {
    const made = folder(t);
    compile("-p", join(CLIENT, "tsconfig.declarations.json"), "--outDir", made);
    assert.deepEqual(readdirSync(join(CLIENT, "declarations")).sort(), readdirSync(made).sort());
    for (const name of readdirSync(made)) {
        const message = `${name}: run "npm run declarations" in client/`;
        assert.equal(
            read("client/declarations", name),
            readFileSync(join(made, name), "utf8"),
            message,
        );
    }
});

test("The example is one, and its types are right", (t) => {
    const example = exampleIn(read("client/README.md"));
    const inSource = exampleIn(read("client/protocol.mjs").replaceAll(/^ \* ?/gm, ""));
    assert.equal(example, inSource);
    const project = folder(t);
    const compilerOptions = {
        ...JSON.parse(read("client/tsconfig.json")).compilerOptions,
        noUnusedParameters: false,
        paths: { "/kiroweb/*": [join(CLIENT, "declarations/*")] },
    };
    writeFileSync(join(project, "page.mjs"), example);
    writeFileSync(
        join(project, "tsconfig.json"),
        JSON.stringify({ compilerOptions, files: ["page.mjs"] }),
    );
    compile("-p", project);
});

test("The example shows what the engine sends, and answers", async (t) => {
    const gateway = await ScriptedGateway.start();
    const shown = [];
    Object.assign(globalThis, {
        WebSocket,
        location: new URL(`${gateway.url.replace("ws:", "http:")}#token=a1b2`),
        sessionStorage: { setItem: () => {}, getItem: () => "a1b2" },
        history: { replaceState: () => {} },
        addEventListener: () => {},
        document: { body: { append: (text) => shown.push(text) }, createElement: () => "" },
    });
    t.after(() => gateway.stop());
    const path = join(folder(t), "page.mjs");
    const module = pathToFileURL(join(CLIENT, "protocol.mjs"));
    const example = exampleIn(read("client/README.md")).replace(
        "/kiroweb/protocol.mjs",
        module.href,
    );
    writeFileSync(path, `${example}\nexport { connection };\n`);
    const { connection } = await import(pathToFileURL(path));
    t.after(() => connection.close());
    const peer = await gateway.peer();
    assert.deepEqual(peer.offered, ["kiroweb.v1", "kiroweb.token.a1b2"]);
    const configuration = { commands: "/commands", newView: "/newView", ready: "/ready" };
    await peer.welcome({ configuration });
    assert.deepEqual((await peer.next("subscribe")).channels, ["/commands"]);
    assert.equal((await peer.next("publish")).channel, "/newView");
    assert.equal((await peer.next("publish")).channel, "/ready");
    const token = JSON.stringify({ cmd: "sendACT", ACT: "7", returnChannel: "/drawn" });
    peer.batch(1, [
        ["/commands", '{"cmd":"line","x":NaN}'],
        ["/commands", token],
    ]);
    const answer = await peer.next("publish");
    assert.deepEqual([answer.channel, JSON.parse(answer.text)], ["/drawn", { ACT: "7" }]);
    assert.deepEqual(shown, ['{"cmd":"line","x":NaN}']);
});

test("Gateway, module and document agree on the close codes", () => {
    const files = readdirSync(join(ROOT, "gateway"), { recursive: true }).filter((name) =>
        name.endsWith(".hpp"),
    );
    const header = files
        .map((name) => read("gateway", name))
        .find((text) => text.includes("enum class CloseCode"));
    const inGateway = {};
    for (const [, first, rest, number] of /enum class CloseCode[^]*?};/
        .exec(header)[0]
        .matchAll(/\bk([A-Z])(\w*) = (\d+)/g)) {
        inGateway[first.toLowerCase() + rest] = Number(number);
    }
    const ours = Object.entries(CLOSE_CODES).filter(
        ([name, code]) => code >= 4000 || inGateway[name],
    );
    assert.deepEqual(inGateway, Object.fromEntries(ours));

    const meanings = { yes: "return", afresh: "afresh", no: "refused" };
    const inDocument = {};
    const closing = /\n## Closing\n([^]*?)\n## /.exec(read("docs/protocol.md"))[1];
    for (const [, codes, meaning] of closing.matchAll(/^\| ([\d, ]+) \|.*\| (\w+)[^|]*\|$/gm)) {
        for (const code of codes.split(", ")) inDocument[code] = meanings[meaning];
    }
    const inModule = Object.values(CLOSE_CODES).map((code) => [code, nextAttempt(code)]);
    // The page's own: 1000 ends its view.
    assert.deepEqual(inDocument, { 1000: "refused", ...Object.fromEntries(inModule) });
});

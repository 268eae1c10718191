// What the module promises to those who use it: declarations, example, close codes.
import assert from "node:assert/strict";
import { execFileSync } from "node:child_process";
import { mkdtempSync, readdirSync, readFileSync, rmSync, writeFileSync } from "node:fs";
import { tmpdir } from "node:os";
import { join, resolve } from "node:path";
import { after, test } from "node:test";
import { fileURLToPath, pathToFileURL } from "node:url";

import { CLOSE_CODES, nextAttempt } from "../../client/close_codes.mjs";
import { WebSocket } from "./support/packages.mjs";
import { ScriptedGateway } from "./support/scripted_gateway.mjs";

const ROOT = fileURLToPath(new URL("../../", import.meta.url));
const CLIENT = join(ROOT, "client");
const read = (path) => readFileSync(resolve(ROOT, path), "utf8");
const exampleIn = (text) => /```js\n([^]*?)```/.exec(text)[1];

const folder = mkdtempSync(join(tmpdir(), "kiroweb-"));
after(() => rmSync(folder, { recursive: true }));

function compile(...options) {
    const compiler = join(CLIENT, "node_modules/typescript/bin/tsc");
    execFileSync(process.execPath, [compiler, ...options], { stdio: "inherit" });
}

test("The declarations are those of the source", () => {
    const made = join(folder, "declarations");
    compile("-p", join(CLIENT, "tsconfig.declarations.json"), "--outDir", made);
    const readAll = (path) => readdirSync(path).map((name) => [name, read(join(path, name))]);
    const hint = 'run "npm run declarations" in client/';
    assert.deepEqual(readAll(join(CLIENT, "declarations")), readAll(made), hint);
});

test("The example is one, its types are right, and it shows what the engine sends, and answers", async (t) => {
    const example = exampleIn(read("client/README.md"));
    assert.equal(example, exampleIn(read("client/protocol.mjs").replaceAll(/^ \* ?/gm, "")));
    const write = (name, text) => writeFileSync(join(folder, name), text);
    const compilerOptions = {
        ...JSON.parse(read("client/tsconfig.json")).compilerOptions,
        noUnusedParameters: false,
        paths: { "/kiroweb/*": [join(CLIENT, "declarations/*")] },
    };
    write("page.mjs", example);
    write("tsconfig.json", JSON.stringify({ compilerOptions, files: ["page.mjs"] }));
    compile("-p", folder);

    const gateway = await ScriptedGateway.start();
    t.after(() => gateway.stop());
    const shown = [];
    Object.assign(globalThis, {
        WebSocket,
        location: new URL(`${gateway.url.replace("ws:", "http:")}#token=a1b2`),
        sessionStorage: { setItem: () => {}, getItem: () => "a1b2" },
        history: { replaceState: () => {} },
        addEventListener: () => {},
        document: { body: { append: (text) => shown.push(text) }, createElement: () => "" },
    });
    const module = pathToFileURL(join(CLIENT, "protocol.mjs")).href;
    const runnable = example.replace("/kiroweb/protocol.mjs", module);
    write("page.mjs", `${runnable}\nexport { connection };\n`);
    const { connection } = await import(pathToFileURL(join(folder, "page.mjs")));
    t.after(() => connection.close());
    const peer = await gateway.peer();
    const configuration = { commands: "/commands", newView: "/newView", ready: "/ready" };
    await peer.welcome({ configuration });
    assert.deepEqual((await peer.next("subscribe")).channels, ["/commands"]);
    for (const name of ["/newView", "/ready"]) {
        assert.equal((await peer.next("publish")).channel, name);
    }
    const token = JSON.stringify({ cmd: "sendACT", ACT: "7", returnChannel: "/drawn" });
    const line = '{"cmd":"line","x":NaN}';
    const records = [line, token].map((text) => ["/commands", text]);
    peer.batch(1, records);
    const answer = await peer.next("publish");
    assert.deepEqual([answer.channel, JSON.parse(answer.text)], ["/drawn", { ACT: "7" }]);
    assert.deepEqual(shown, [line]);
});

test("Gateway, module and document agree on the close codes", () => {
    const [declared] = /enum class CloseCode[^]*?};/.exec(read("gateway/src/PageMessages.hpp"));
    const members = declared.matchAll(/\bk([A-Z])(\w*) = (\d+)/g);
    const inGateway = Object.fromEntries(
        [...members].map(([, first, rest, code]) => [first.toLowerCase() + rest, Number(code)]),
    );
    const isShared = ([name, code]) => code >= 4000 || inGateway[name];
    assert.deepEqual(inGateway, Object.fromEntries(Object.entries(CLOSE_CODES).filter(isShared)));
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

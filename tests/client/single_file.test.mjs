// A page and a recording as one file: what is put together, and what happens when it cannot be.
import assert from "node:assert/strict";
import { test } from "node:test";

import { SingleFile, blobOfBase64 } from "../../client/page/recording/single_file.mjs";
import { sourceOfBlob } from "../../client/page/recording/sources.mjs";

const PARTS = {
    "single.html": "<{{page.css}}|{{worker.js}}|{{at}}|{{recording}}|{{page.js}}>{{other}}",
    "page.css": "style",
    "worker.js": "work {{recording}}",
    "page.js": "$& {{at}}",
};
const ABC = sourceOfBlob(new Blob(["abc"]));
/** Of a page that is no single file. */
const document = { getElementById: () => null };

test("What stands at the template's places is the page's parts, as they are", async () => {
    const file = new SingleFile(document, async (name) => new Response(PARTS[name]));
    const page = await file.of(ABC, 1.5);
    assert.equal(await page.text(), "<style|work {{recording}}|1.5|YWJj|$& {{at}}>{{other}}");
    assert.equal(page.type, "text/html");
});

test("A recording of any size comes out of its text as it went in", async () => {
    const file = new SingleFile(
        document,
        async (name) => new Response(name === "single.html" ? "{{recording}}" : ""),
    );
    for (const size of [0, 1, 2, 3 * 1024 * 1024, 7 * 1024 * 1024 + 1]) {
        const bytes = Uint8Array.from({ length: size }, (_, i) => (i * i) >> 7);
        const text = await (await file.of(sourceOfBlob(new Blob([bytes])), 0)).text();
        const back = new Uint8Array(await blobOfBase64(text).arrayBuffer());
        assert.ok(Buffer.from(bytes).equals(back), `${size} bytes`);
    }
});

test("What is there once is kept, and what is missing is asked for again", async () => {
    let isThere = false;
    const asked = [];
    const file = new SingleFile(document, async (name) => {
        asked.push(name);
        return new Response(PARTS[name], { status: isThere ? 200 : 404 });
    });
    file.prepare();
    await assert.rejects(file.of(ABC, 0), /cannot be saved: single.html: 404/);
    isThere = true;
    file.prepare();
    await file.of(ABC, 0);
    isThere = false;
    await file.of(ABC, 0);
    assert.equal(asked.length, 8);
    const large = /** @type {any} */ ({ size: 256 * 1024 * 1024 + 1 });
    await assert.rejects(file.of(large, 0), /larger than an HTML file can hold/);
});

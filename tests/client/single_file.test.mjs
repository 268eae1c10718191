// A page and a recording as one file: what is put together, and what happens when it cannot be.
import assert from "node:assert/strict";
import { test } from "node:test";

import { SingleFile, blobOfBase64 } from "../../client/page/recording/single_file.mjs";
import { sourceOfBlob } from "../../client/page/recording/sources.mjs";

/** Of a page that is no single file. */
const document = { getElementById: () => null };
const PARTS = {
    "single.html": "<{{page.css}}|{{worker.js}}|{{at}}|{{page.js}}>{{other}};{{recording}}",
    "page.css": "style",
    "worker.js": "work {{recording}}",
    "page.js": "$& {{at}}",
};
const WHOLE = "<style|work {{recording}}|1.5|$& {{at}}>{{other}};";
const ABC = sourceOfBlob(new Blob(["abc"]));

test("The template's places get the page's parts as they are, and a recording of any size", async () => {
    const file = new SingleFile(document, async (name) => new Response(PARTS[name]));
    for (const size of [0, 1, 2, 3 * 1024 * 1024, 7 * 1024 * 1024 + 1]) {
        const bytes = Uint8Array.from({ length: size }, (_, i) => (i * i) >> 7);
        const page = await file.of(sourceOfBlob(new Blob([bytes])), 1.5);
        assert.equal(page.type, "text/html");
        const text = await page.text();
        assert.ok(text.startsWith(WHOLE), text.slice(0, 99));
        const back = await blobOfBase64(text.slice(WHOLE.length)).arrayBuffer();
        assert.ok(Buffer.from(bytes).equals(Buffer.from(back)), `${size} bytes`);
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

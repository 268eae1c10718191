// A recording, read by a program that knows nothing of it but the format.
import assert from "node:assert/strict";
import { execFileSync } from "node:child_process";
import { mkdtempSync, readFileSync, rmSync } from "node:fs";
import { tmpdir } from "node:os";
import { join } from "node:path";
import { after, test } from "node:test";

import { fzstd, mcap } from "./support/packages.mjs";

const sample = process.env.KIROWEB_RECORDING_SAMPLE;
const folder = mkdtempSync(join(tmpdir(), "recording-"));
after(() => rmSync(folder, { recursive: true }));

const EPOCH = 1_700_000_000_000_000_000n;
const TOPICS = [
    "commands",
    "blocks",
    "snapshots",
    "frames",
    "tokens",
    "controls",
    "errors",
    "connections",
];
const decompressHandlers = {
    zstd: (bytes, size) => fzstd().decompress(bytes, new Uint8Array(Number(size))),
};

function written(...options) {
    const file = join(folder, ["run", ...options, "mcap"].join("."));
    execFileSync(sample, [file, ...options]);
    return { file, bytes: readFileSync(file) };
}

async function collect(messages) {
    const all = [];
    for await (const message of messages) all.push(message);
    return all;
}

for (const options of [[], ["plain"]]) {
    test(`its index leads to every message ${options}`, async () => {
        const { bytes } = written(...options);
        const readable = {
            size: () => Promise.resolve(BigInt(bytes.length)),
            read: (offset, size) =>
                Promise.resolve(bytes.subarray(Number(offset), Number(offset + size))),
        };
        const { McapIndexedReader } = mcap();
        const reader = await McapIndexedReader.Initialize({ readable, decompressHandlers });
        assert.deepEqual(
            [...reader.channelsById.values()].map((channel) => channel.topic),
            TOPICS,
        );
        for (const schema of reader.schemasById.values()) {
            assert.equal(schema.encoding, "jsonschema");
            assert.ok(JSON.parse(Buffer.from(schema.data).toString()).title);
        }
        assert.equal(reader.header.profile, "kiroweb");
        const { statistics } = reader;
        assert.equal(statistics.messageCount, 300n);
        assert.deepEqual([...statistics.channelMessageCounts.values()], [100n, 100n, 100n]);
        assert.ok(reader.chunkIndexes.length > 2);
        assert.deepEqual(
            [statistics.messageStartTime, statistics.messageEndTime],
            [EPOCH + 1n, EPOCH + 300n],
        );

        const frames = await collect(reader.readMessages({ topics: ["frames"] }));
        frames.forEach((message, i) => {
            assert.equal(message.logTime, EPOCH + BigInt(3 * i + 3));
            assert.equal(message.sequence, i);
            assert.deepEqual(JSON.parse(Buffer.from(message.data).toString()), { frame: i });
        });
        const late = await collect(reader.readMessages({ startTime: EPOCH + 298n }));
        assert.deepEqual(
            late.map((message) => message.channelId),
            [2, 1, 4],
        );
        assert.deepEqual([...late[0].data.subarray(8)], [99, 0x79, 0x7a]);
    });

    test(`its records stand in the order of their times, and every checksum holds ${options}`, () => {
        const { McapStreamReader } = mcap();
        const reader = new McapStreamReader({ decompressHandlers, validateCrcs: true });
        reader.append(written(...options).bytes);
        const seen = [];
        let record;
        while ((record = reader.nextRecord())) {
            if (record.type === "Message") seen.push(record.logTime);
        }
        assert.ok(reader.done());
        assert.deepEqual(
            seen,
            Array.from({ length: 300 }, (_, i) => EPOCH + BigInt(i + 1)),
        );
    });
}

test("the program in the documentation reads it", () => {
    const client = new URL("../../client/", import.meta.url);
    const page = readFileSync(new URL("../docs/recording.md", client), "utf8");
    const [, program] = page.match(/```js\n(.*?)```/s);
    assert.ok(program.trim().split("\n").length <= 10);
    const out = execFileSync(
        process.execPath,
        ["--input-type=module", "-e", program, written().file],
        {
            cwd: client,
            encoding: "utf8",
        },
    );
    const lines = out.trim().split("\n");
    assert.equal(lines.length, 100);
    assert.match(lines[99], /frame: 99/);
});

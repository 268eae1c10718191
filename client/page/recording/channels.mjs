// What a recording's channels are: those that the engine's own have.

/** @typedef {import("./writer.mjs").Channel} Channel */

const WHOLE = { type: "integer" };
const TEXT = { type: "string" };

/** @param {string} topic @param {string} encoding @param {object} schema @returns {Channel} */
const channel = (topic, encoding, schema) => ({ topic, encoding, schema: JSON.stringify(schema) });

/** @param {string} title @param {string} description @param {Record<string, any>} properties
 * @param {string[]} [required] */
const object = (title, description, properties, required = Object.keys(properties)) => {
    return { title, type: "object", description, properties, required };
};

const OUTCOMES = ["painted", "hidden", "paused", "late", "no page", "failed", "interrupted"];

/** By their numbers, less one. */
export const CHANNELS = [
    channel(
        "commands",
        "json",
        object("command", "A command as it went to the page.", {
            cmd: TEXT,
            seq: { type: "integer", minimum: 1 },
        }),
    ),
    channel("blocks", "kiroweb/block", {
        title: "block",
        description: "Binary: an identifier of 8 bytes, little-endian, and the data.",
    }),
    channel(
        "snapshots",
        "kiroweb/snapshot",
        object(
            "snapshot",
            "Binary: 4 bytes, the length of a JSON text; the text; then each block behind its length of 8 bytes. All little-endian. The text holds:",
            { frame: WHOLE, seq: WHOLE, commands: { type: "array", items: { type: "object" } } },
        ),
    ),
    channel(
        "frames",
        "json",
        object("frame", "A frame has been sent: all its commands and blocks are before this.", {
            frame: { type: "integer", minimum: 0 },
            attempt: { type: "integer", minimum: 1 },
            kind: { enum: ["whole", "changes"] },
            bytes: WHOLE,
            seq: { type: "integer", description: "of its last command" },
        }),
    ),
    channel(
        "tokens",
        "json",
        object(
            "token",
            "A frame is over. The stamps are microseconds since 1970, 0 where there is none.",
            {
                frame: WHOLE,
                attempt: WHOLE,
                outcome: { enum: OUTCOMES },
                reason: TEXT,
                serverSend: WHOLE,
                clientReceive: WHOLE,
                clientPaint: WHOLE,
                clientSend: WHOLE,
                serverReceive: WHOLE,
            },
        ),
    ),
    channel(
        "controls",
        "json",
        object("event", "What somebody did on a page, as the page said it.", {
            event: { enum: ["control", "pick", "limits", "key"] },
        }),
    ),
    channel(
        "errors",
        "json",
        object("error", "A script error, as a page reported it.", { error: TEXT }),
    ),
    channel(
        "connections",
        "json",
        object(
            "connection",
            "The recording begins, or a page has come, is back, or the last one is gone.",
            {
                event: { enum: ["begin", "new view", "return", "gone"] },
                vocabulary: TEXT,
                title: TEXT,
            },
            ["event"],
        ),
    ),
];

// The page of the benchmark: it is told what to count, and says when the last one has come.

import { Connection, gatewayAddress, tabAccess } from "/kiroweb/protocol.mjs";

const ADDRESS = gatewayAddress();
const TOKEN = await tabAccess.token();
const NUMBER_OFFSET = 4; // of a block's transfer in its frame
const LAST_TEXT = "last";

/** With the page's own module, as figures use it. */
function countWithModule({ channel, count, ready, done }) {
    let received = 0;
    const take = () => ++received === count && done();
    const connection = new Connection(
        ADDRESS,
        { onHello: ready, onText: take, onBlock: take },
        { subscribe: [channel] },
    );
    return () => connection.close();
}

/** With nothing but a socket: no text is taken from its frame, nothing is acknowledged. */
function countFrames({ channel, count, ready, done }) {
    let frames = -1; // the gateway's hello
    let blocks = 0;
    const socket = new WebSocket(ADDRESS, ["kiroweb.v1", `kiroweb.token.${TOKEN}`]);
    socket.binaryType = "arraybuffer";
    socket.onopen = () => {
        socket.send(
            JSON.stringify({ t: "hello", version: 1, resume: false, subscribe: [channel] }),
        );
    };
    const takeText = (text) => {
        if (++frames === 0) ready();
        if (text.endsWith(LAST_TEXT)) done();
    };
    const takeBlock = (frame) => {
        const transfer = new DataView(frame).getUint32(NUMBER_OFFSET, true);
        socket.send(`{"t":"block","transfer":${transfer},"ok":true}`);
        if (++blocks === count) done();
    };
    socket.onmessage = ({ data }) => (typeof data === "string" ? takeText(data) : takeBlock(data));
    return () => socket.close(1000);
}

const control = new Connection(
    ADDRESS,
    {
        onHello: () => control.publish("/bench/page", "loaded"),
        onText(_, text) {
            const { module, channel, count } = JSON.parse(text);
            const begin = module ? countWithModule : countFrames;
            const end = begin({
                channel,
                count,
                ready: () => control.publish("/bench/page", "ready"),
                done() {
                    control.publish("/bench/page", "done");
                    end();
                },
            });
        },
    },
    { subscribe: ["/bench/control"] },
);

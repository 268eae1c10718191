// How a page gets in, and what it does when it does not.
import assert from "node:assert/strict";
import { test } from "node:test";

import { gatewayAddress, TabAccess } from "../../client/access.mjs";
import { MainAccess } from "../../client/page/worker/access.mjs";
import { Fixture } from "./support/page.mjs";

const fixture = new Fixture();
const OPEN_LINK = "open the link that the program printed";

/** A browser's tab at this address; `answers` are those to its requests. */
class Tab extends EventTarget {
    asked = [];
    storage = new Map();
    history = { replaceState: (state, _, url) => this.open(url) };
    sessionStorage = {
        getItem: (key) => this.storage.get(key) ?? null,
        setItem: (key, value) => this.storage.set(key, value),
    };
    constructor(url, answers = []) {
        super();
        this.answers = answers;
        this.open(url);
    }
    open(url) {
        this.location = new URL(url, "http://127.0.0.1:8765/");
        this.dispatchEvent(new Event("hashchange"));
    }
    fetch = async (path, { method, body }) => {
        this.asked.push([method, path, body]);
        const answer = this.answers.shift();
        if (!answer) throw new TypeError("no network");
        return new Response(...answer);
    };
}

test("A link's token is kept for the tab, and leaves the address", async () => {
    const tab = new Tab("/page?x=1#token=a1b2");
    const access = new TabAccess(tab);
    assert.equal(await access.token(), "a1b2");
    assert.equal(tab.location.href, "http://127.0.0.1:8765/page?x=1");
    tab.open("/#a=1&token=a1b2&replay=x,y");
    await access.token();
    assert.equal(tab.location.hash, "#a=1&replay=x,y");
    tab.open("/page#chapter"); // reloaded; no link's fragment
    assert.equal(await new TabAccess(tab).token(), "a1b2");
    tab.open("/#token=a b"); // cannot be a token
    tab.storage = null; // the browser stores nothing: the page has it as long as it is there
    assert.equal(await access.token(), "a1b2");
});

test("A code is exchanged once, and asked about again only when nobody answered", async () => {
    const tab = new Tab("/#code=c0de", [null, ["busy", { status: 503 }], ["a1b2\n"]]);
    const access = new TabAccess(tab);
    for (const why of [/no network/, /503/]) await assert.rejects(access.token(), why);
    assert.deepEqual(await Promise.all([access.token(), access.token()]), ["a1b2", "a1b2"]);
    assert.deepEqual(tab.asked, Array(3).fill(["POST", "/kiroweb/token", "c0de"]));
});

test("Each session of a server has its own address and token", async () => {
    const tab = new Tab("/s/run-1/#token=one", [
        ["two"],
        [null],
        [null, { headers: { "Retry-After": "1" } }],
    ]);
    const access = new TabAccess(tab);
    assert.equal(gatewayAddress(tab.location), "ws://127.0.0.1:8765/s/run-1/kiroweb");
    assert.equal(await access.token(), "one");
    tab.open("/s/run_2/x/#code=c0de");
    assert.equal(gatewayAddress(tab.location), "ws://127.0.0.1:8765/s/run_2/kiroweb");
    assert.equal(await access.token(), "two");
    assert.deepEqual([await access.isServed(), await access.isServed()], [true, false]);
    const page = "/s/run_2/";
    assert.deepEqual(
        tab.asked.map(([, path]) => path),
        [`${page}kiroweb/token`, page, page],
    );
    for (const [path, token] of [
        ["/s/run-1/", "one"],
        ["/s/", ""],
        ["/t/run-1/", ""],
    ]) {
        tab.open(path);
        assert.equal(await new TabAccess(tab).token(), token, path);
    }
    assert.equal(gatewayAddress({ protocol: "https:", host: "a" }), "wss://a/kiroweb");
});

test("A page without a token, or with a wrong one, says what to do, and takes the link that is opened then", async () => {
    const { heard, gateway } = fixture;
    gateway.refuses = (offered) => !offered.includes("kiroweb.token.good");
    const tab = new Tab("/", Array(4).fill([null]));
    fixture.begin({ access: new TabAccess(tab) });
    await heard.until("state", "refused", `this tab has no token: ${OPEN_LINK}`);
    tab.open("#token=bad");
    const wrong = `the program does not accept this tab's token: ${OPEN_LINK} last`;
    await heard.until("state", "refused", wrong);
    tab.open("#token=good");
    const { socket, offered } = await fixture.peer();
    assert.deepEqual(offered, ["kiroweb.v1", "kiroweb.token.good"]);
    socket.terminate();
    assert.deepEqual((await gateway.peer()).offered, offered);
});

test("A tab tells patience that is asked for from what it cannot find out", async () => {
    const later = { "Retry-After": "1" };
    const tab = new Tab("/s/run-1/", [
        [null, { status: 503, headers: later }],
        [null, { status: 403 }], // an origin of its own, whose engine is not known
        ...[502, 503, 404].map((status) => [null, { status }]),
    ]);
    const access = new TabAccess(tab);
    assert.deepEqual([await access.isServed(), await access.isServed()], [false, false]);
    for (const why of [/502/, /503/, /404/, /no network/]) {
        await assert.rejects(access.isServed(), why);
    }
});

test("A page that does not get in waits, and says what it may be if its program asks for patience", async () => {
    const { heard, gateway } = fixture;
    let attempts = 0;
    gateway.refuses = () => ++attempts < 12;
    const told = { token: "good", served: null };
    const access = new MainAccess(({ id, what }) => {
        if (attempts === 5) told.served = false;
        access.told(id, told[what]);
    });
    fixture.begin({ access });
    await fixture.peer();
    const waits = `no engine answers to this link yet; if that lasts, ${OPEN_LINK} last`;
    const reasons = heard.of("state").map(([, , reason]) => reason);
    const first = reasons.indexOf(waits);
    assert.equal(
        reasons.filter((reason, at) => reason === "no connection" && at < first).length,
        5,
    );
    assert.equal(reasons.filter((reason) => reason === waits).length, 7);
});

test("Addresses elsewhere at which nobody is say nothing about the token", async () => {
    const { heard } = fixture;
    const access = { token: async () => "good", isServed: async () => true };
    const gateways = [1, 2].map((port) => `ws://127.0.0.1:${port}/kiroweb`);
    const { socket } = await fixture.connect({ access }, { gateways });
    socket.close(1001, "gateway stopped");
    const refused = heard.until("state", "refused").then(() => "refused");
    const peer = await Promise.race([fixture.gateway.peer(), refused]);
    assert.notEqual(peer, "refused");
});

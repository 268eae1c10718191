// How a page gets in, and what it does when it does not.
import assert from "node:assert/strict";
import { test } from "node:test";

import { gatewayAddress, TabAccess } from "../../client/access.mjs";
import { Fixture } from "./support/page.mjs";

const fixture = new Fixture();

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
    assert.equal(gatewayAddress(tab.location), "ws://127.0.0.1:8765/kiroweb");
    const access = new TabAccess(tab);
    assert.equal(await access.token(), "a1b2");
    assert.equal(tab.location.href, "http://127.0.0.1:8765/page?x=1");
    tab.open("/page#chapter"); // reloaded; no link's fragment
    assert.equal(await new TabAccess(tab).token(), "a1b2");
    assert.equal(tab.location.hash, "#chapter");
    tab.open("/#token=a b"); // cannot be a token
    assert.equal(await access.token(), "a1b2");
    tab.storage = null; // the browser stores nothing: the page has it as long as it is there
    assert.equal(await access.token(), "a1b2");
});

test("A code is exchanged once, and asked about again only when nobody answered", async () => {
    const tab = new Tab("/#code=c0de", [null, ["busy", { status: 503 }], ["a1b2\n"]]);
    const access = new TabAccess(tab);
    await assert.rejects(access.token(), /no network/);
    await assert.rejects(access.token(), /503/);
    assert.deepEqual(await Promise.all([access.token(), access.token()]), ["a1b2", "a1b2"]);
    assert.deepEqual(tab.asked, Array(3).fill(["POST", "/kiroweb/token", "c0de"]));
    assert.equal(tab.location.hash, "");
    // The same link opened again: the code is used up, and the tab has what it gave.
    tab.open("/#code=c0de");
    tab.answers.push(["used", { status: 403 }]);
    assert.equal(await access.token(), "a1b2");
});

test("The token is offered as a subprotocol, with every attempt", async () => {
    const peer = await fixture.connect({ token: "a1b2" });
    assert.deepEqual(peer.offered, ["kiroweb.v1", "kiroweb.token.a1b2"]);
    peer.socket.terminate();
    assert.deepEqual((await fixture.gateway.peer()).offered, peer.offered);
});

test("A page without a token, or with a wrong one, says what to do, and takes the link that is opened then", async () => {
    const { heard, gateway } = fixture;
    gateway.refuses = (offered) => !offered.includes("kiroweb.token.good");
    const tab = new Tab("/", Array(4).fill([null]));
    fixture.begin({ access: new TabAccess(tab) });
    const none = "this tab has no token: open the link that the program printed";
    await heard.until("state", "refused", none);
    tab.open("#token=bad");
    const wrong =
        "the program does not accept this tab's token: open the link that the program printed last";
    await heard.until("state", "refused", wrong);
    tab.open("#token=good");
    await fixture.peer();
    await heard.until("state", "live");
});

test("Who is turned away twice in a row gives up; whatever else happens, it goes on", async () => {
    fixture.gateway.refuses = () => true;
    const served = [false, true, false, true, new Promise(() => {}), true, true];
    const exchanges = [Promise.reject(new Error("exchange failed")), new Promise(() => {})];
    const access = {
        token: async () => exchanges.shift() ?? "a",
        isServed: async () => served.shift(),
    };
    fixture.begin({ patience: { open: 100, quiet: 1e4, answer: 1e4 }, access });
    await fixture.heard.until("state", "refused");
    assert.deepEqual([served, exchanges], [[], []]);
});

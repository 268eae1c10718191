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
    history = {
        state: "state",
        replaceState: (state, _, url) => {
            assert.equal(state, "state");
            this.open(url);
        },
    };
    constructor(url, answers = []) {
        super();
        this.answers = answers;
        this.open(url);
    }
    open(url) {
        this.location = new URL(url, "http://127.0.0.1:8765/");
    }
    get sessionStorage() {
        return {
            getItem: (key) => this.storage.get(key) ?? null,
            setItem: (key, value) => this.storage.set(key, value),
        };
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
    assert.equal(gatewayAddress(new URL("https://plot.example/")), "wss://plot.example/kiroweb");
    const access = new TabAccess(tab);
    assert.equal(await access.token(), "a1b2");
    assert.equal(tab.location.href, "http://127.0.0.1:8765/page?x=1");
    assert.deepEqual([...tab.storage], [["kiroweb.token", "a1b2"]]);
    // Reloaded, and what is no link's fragment is left alone.
    tab.open("/page#chapter");
    assert.equal(await new TabAccess(tab).token(), "a1b2");
    assert.deepEqual([tab.location.hash, tab.asked], ["#chapter", []]);
    // What cannot be a token is none.
    tab.open("/#token=a b");
    assert.equal(await access.token(), "a1b2");
    assert.equal(tab.location.hash, "");
    assert.equal(await new TabAccess(new Tab("/")).token(), "");
});

test("A code is exchanged once, and asked about again only when nobody answered", async () => {
    const tab = new Tab("/#code=c0de", [null, ["busy", { status: 503 }], ["a1b2\n"]]);
    const access = new TabAccess(tab);
    await assert.rejects(access.token(), /no network/);
    await assert.rejects(access.token(), /503/);
    assert.deepEqual(await Promise.all([access.token(), access.token()]), ["a1b2", "a1b2"]);
    assert.deepEqual(tab.asked, Array(3).fill(["POST", "/kiroweb/token", "c0de"]));
    assert.deepEqual([tab.location.hash, tab.storage.get("kiroweb.token")], ["", "a1b2"]);
    // The same link opened again: the code is used up, and the tab has what it gave.
    tab.open("/#code=c0de");
    tab.answers.push(["used", { status: 403 }]);
    const asked = access.token();
    tab.open("/#token=c3d4"); // meanwhile
    assert.equal(await asked, "a1b2");
    assert.equal(await access.token(), "c3d4");
    assert.equal(tab.location.hash, "");
});

test("Where nothing can be stored, the page has its token as long as it is there", async () => {
    const tab = new Tab("/#token=a1b2");
    Object.defineProperty(tab, "sessionStorage", {
        get: () => {
            throw new DOMException("denied", "SecurityError");
        },
    });
    const access = new TabAccess(tab);
    assert.equal(await access.token(), "a1b2");
    assert.equal(await access.token(), "a1b2");
});

test("The token is offered as a subprotocol, with every attempt", async () => {
    const peer = await fixture.connect({ token: "a1b2" });
    assert.deepEqual(peer.offered, ["kiroweb.v1", "kiroweb.token.a1b2"]);
    peer.cut();
    assert.deepEqual((await fixture.gateway.peer()).offered, peer.offered);
    fixture.page.close();
    // One that comes when the page does not want it any more is not offered.
    let give;
    const token = () => new Promise((resolve) => (give = resolve));
    fixture.begin({ access: { token } });
    await Promise.resolve();
    fixture.page.close();
    give("late");
    assert.deepEqual((await fixture.connect({ token: "new" })).offered[1], "kiroweb.token.new");
});

test("A page without a token, or with a wrong one, says what to do, and takes the link that is opened then", async () => {
    const { heard, gateway } = fixture;
    gateway.refuses = (offered) => !offered.includes("kiroweb.token.good");
    const tab = new Tab(
        "/",
        Array.from({ length: 4 }, () => [null]),
    );
    fixture.begin({ access: new TabAccess(tab) });
    await heard.until(
        "state",
        "refused",
        "this tab has no token: open the link that the program printed",
    );
    const openLink = (hash) => {
        tab.open(hash);
        tab.dispatchEvent(new Event("hashchange"));
    };
    openLink("#chapter");
    assert.equal(fixture.page.state.name, "refused");
    openLink("#token=bad");
    const wrong =
        "the program does not accept this tab's token: open the link that the program printed last";
    await heard.until("state", "refused", wrong);
    openLink("#token=good");
    await (await gateway.peer()).welcome();
    await heard.until("state", "live");
    // Opened once more: nothing to do, but to hide the token.
    openLink("#token=good");
    await new TabAccess(tab).token();
    assert.deepEqual([tab.location.hash, fixture.page.state.name], ["", "live"]);
});

test("Who is turned away twice in a row gives up; whatever else happens, it goes on", async () => {
    fixture.gateway.refuses = () => true;
    const served = [false, true, false, true, new Promise(() => {}), true, true];
    const exchanges = [
        async () => {
            throw new Error("exchange failed");
        },
        () => new Promise(() => {}),
    ];
    const patience = { open: 100, quiet: 1e4, answer: 1e4 };
    const access = {
        token: async () => exchanges.shift()?.() ?? "a",
        isServed: async () => served.shift(),
    };
    fixture.begin({ patience, access });
    await fixture.heard.until("state", "refused");
    assert.deepEqual([served, exchanges], [[], []]);
    const reasons = fixture.heard.of("state").map(([, , reason]) => reason);
    assert.ok(
        reasons.includes("Error: exchange failed") &&
            reasons.includes("no answer from the program"),
    );
});

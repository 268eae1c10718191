// The demo over a cluster: what the pages of two gateways show while its processes are ended.
import assert from "node:assert/strict";
import { execFileSync } from "node:child_process";
import { randomBytes } from "node:crypto";
import { once } from "node:events";
import { readdirSync } from "node:fs";
import { mkdtemp, rm, writeFile } from "node:fs/promises";
import { createServer } from "node:net";
import { tmpdir } from "node:os";
import { join } from "node:path";
import { test } from "node:test";
import { fileURLToPath } from "node:url";

import { Program } from "./support/program.mjs";
import { Stage } from "./support/stage.mjs";

const SCRIPT = fileURLToPath(new URL("../../scripts/cluster.sh", import.meta.url));
const FILES = fileURLToPath(new URL("../../deploy/cluster-files", import.meta.url));
const PROGRAMS = join(process.env.KIROWEB_MONITOR ?? "", "..");

const stage = new Stage();

/** Milliseconds until the page has painted some frames more. */
async function draws(page) {
    const began = performance.now();
    const painted = () => globalThis.kirowebPage?.statistics?.outcomes.painted ?? 0;
    const before = await page.evaluate(painted);
    // Where it has come to another gateway it has begun to count anew.
    await page.waitForFunction(
        (count) => {
            const now = globalThis.kirowebPage?.statistics?.outcomes.painted ?? 0;
            return now >= count + 5 || (now < count && now >= 5);
        },
        before,
        { polling: 20 },
    );
    return performance.now() - began;
}

test("Pages go on when a node or a gateway is ended, and nothing is left in the end", async () => {
    const folder = await mkdtemp(join(tmpdir(), "kiroweb-"));
    stage.defer(() => rm(folder, { recursive: true }));
    const env = { ...process.env, TMPDIR: folder };
    const demo = await Program.run(SCRIPT, [PROGRAMS, "--no-browser"], env);
    stage.defer(() => demo.process.kill());
    const links = [demo.link];
    links.push(await demo.line(/^https?:/, demo.lines.indexOf(demo.link) + 1));
    const pids = Object.fromEntries(
        [...(await demo.line(/end one of them/)).matchAll(/([a-z]+-\w+) (\d+)/g)].map(
            ([, name, pid]) => [name, Number(pid)],
        ),
    );
    const pages = [];
    for (const link of links) {
        const page = await stage.page();
        await page.goto(link);
        pages.push(page);
    }
    const drawn = () => Promise.all(pages.map(draws));
    await drawn();
    process.kill(pids["node-1"], "SIGKILL");
    await demo.line(/node-1 has ended/);
    await drawn();
    process.kill(pids["gateway-one"], "SIGKILL");
    await demo.line(/gateway-one has ended/);
    for (const late of await drawn()) assert.ok(late < 2000, `${late} ms`);
    demo.process.kill("SIGTERM");
    await demo.line(/ frames: .* 0 timed out/);
    await demo.exited;
    assert.deepEqual(readdirSync(folder), []);
    for (const pid of Object.values(pids)) assert.throws(() => process.kill(pid, 0));
});

/** Ports at which nobody listens now. */
async function freePorts(count) {
    const servers = Array.from({ length: count }, () => createServer().listen(0, "127.0.0.1"));
    await Promise.all(servers.map((server) => once(server, "listening")));
    const ports = servers.map((server) => server.address().port);
    await Promise.all(servers.map((server) => once(server.close(), "close")));
    return ports;
}

/** A page that an engine brings: it draws once it has a text, and keeps something of its own. */
const OWN_PAGE = {
    "/": [
        "text/html",
        '<!doctype html><canvas></canvas><script type="module" src="/own.mjs"></script>',
    ],
    "/own.mjs": [
        "text/javascript",
        `const token = new URLSearchParams(location.hash.slice(1)).get("token");
        const url = "ws://" + location.host + "/kiroweb";
        localStorage.setItem("secret", token);
        const socket = new WebSocket(url, ["kiroweb.v1", "kiroweb.token." + token]);
        const hello = { t: "hello", version: 1, subscribe: ["/load/texts"] };
        socket.onopen = () => socket.send(JSON.stringify(hello));
        socket.onmessage = ({ data }) => {
            if (data.startsWith("{")) return;
            const picture = document.querySelector("canvas").getContext("2d");
            picture.fillStyle = "#0080ff";
            picture.fillRect(0, 0, 9, 9);
            document.title = "drawn";
        };`,
    ],
};

/** What the page can get hold of at another origin. Runs there. */
async function reach({ host, token }) {
    const got = [];
    /** @param {string} url */
    const fetched = (url) =>
        fetch(url).then(
            (answer) => got.push(answer.url),
            () => {},
        );
    await fetched("/own.mjs");
    await fetched(`http://${host}/own.mjs`);
    await new Promise((resolve) => {
        const protocols = ["kiroweb.v1", `kiroweb.token.${token}`];
        const socket = new WebSocket(`ws://${host}/kiroweb`, protocols);
        socket.onopen = () => resolve(got.push("a socket"));
        socket.onerror = resolve;
    }).catch(() => {});
    const frame = document.createElement("iframe");
    await new Promise((resolve) => {
        frame.onload = resolve;
        document.addEventListener("securitypolicyviolation", resolve);
        frame.src = `http://${host}/`;
        document.body.append(frame);
    });
    if (frame.contentDocument?.querySelector("canvas")) got.push("a frame");
    if (localStorage.getItem("secret") === token) got.push("what is kept");
    return got;
}

test("Pages that engines bring draw at origins of their own, and reach nothing of each other's", async () => {
    const folder = await mkdtemp(join(tmpdir(), "kiroweb-"));
    stage.defer(() => rm(folder, { recursive: true }));
    const begin = (...command) => {
        const program = Program.spawned(command[0], command.slice(1), { cwd: folder });
        stage.defer(() => program.kill());
        return program;
    };
    const [clients, routes, port] = await freePorts(3);
    const node = `127.0.0.1:${clients}`;
    const sessions = ["wind", "sea-2"].map((name) => ({
        name,
        token: randomBytes(32).toString("hex"),
        host: `${name}.localhost:${port}`,
    }));
    for (const wanted of [
        ["nodes", `${node}:${routes}`],
        ["session", ...sessions.map(({ name }) => name)],
        ["gateway", "one"],
    ]) {
        execFileSync(FILES, [folder, ...wanted]);
    }
    const PATH = `${process.env.PATH}:/usr/sbin`;
    const how = { cwd: join(folder, "node-1"), env: { ...process.env, PATH } };
    const nats = Program.spawned("nats-server", ["-c", "node.conf"], how);
    stage.defer(() => nats.kill());
    const settings = {
        name: "one",
        port,
        tls: "off",
        public: `http://localhost:${port}`,
        servers: node,
        credentials: "gateway-one/credentials",
        ca: "gateway-one/ca.pem",
    };
    const lines = Object.entries(settings).map(([key, value]) => `${key} = ${value}\n`);
    await writeFile(join(folder, "gateway.conf"), lines.join(""));
    begin(join(PROGRAMS, "kiroweb-gateway"), "gateway.conf");
    const pages = [];
    for (const { name, token, host } of sessions) {
        const linkFile = join(folder, `session-${name}`, "link.conf");
        const what = { linkFile, token, texts: 50, blocks: 1, page: OWN_PAGE };
        const engine = begin(join(PROGRAMS, "kiroweb_prove_engine"), JSON.stringify(what));
        // A gateway has said that it would serve it.
        const { page: link } = JSON.parse(await engine.line(/"page":/));
        assert.equal(link, `http://${host}/#token=${token}`);
        engine.tell("go");
        pages.push(await stage.page());
    }
    const [wind, sea] = sessions;
    await pages[0].goto(`http://${wind.host}/#token=${wind.token}`);
    // The address of other sessions leads there, too, and browsers keep what stands behind the "#".
    await pages[1].goto(`http://localhost:${port}/s/${sea.name}/#token=${sea.token}`);
    for (const [at, page] of pages.entries()) {
        await page.waitForFunction(() => document.title === "drawn");
        assert.equal(new URL(page.url()).host, sessions[at].host);
        const color = await page.evaluate(() => [
            ...document.querySelector("canvas").getContext("2d").getImageData(4, 4, 1, 1).data,
        ]);
        assert.deepEqual(color, [0, 128, 255, 255]);
    }
    for (const [at, other] of [sea, wind].entries()) {
        const got = await pages[at].evaluate(reach, other);
        assert.deepEqual(got, [`http://${sessions[at].host}/own.mjs`]);
    }
});

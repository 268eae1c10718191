// Serves the page's files as the gateway does, for tests in which a script plays the engine.
import { readFile } from "node:fs/promises";
import { extname } from "node:path";

const CLIENT = new URL("../../../client/", import.meta.url);
const UPLOT = new URL("node_modules/uplot/dist/", CLIENT);
const TYPES = {
    ".html": "text/html", ".mjs": "text/javascript", ".js": "text/javascript",
    ".css": "text/css", ".svg": "image/svg+xml",
};
const POLICY = "default-src 'none'; script-src 'self'; style-src 'self'; img-src 'self'; connect-src 'self'";

/** Answers requests for files that stand in the client's folder itself, and for uPlot's. */
export async function serveClient(request, response) {
    const name = request.url === "/" ? "index.html" : request.url.split("/").at(-1);
    const folder = request.url.startsWith("/uplot/") ? UPLOT : CLIENT;
    try {
        const body = await readFile(new URL(name, folder));
        const type = TYPES[extname(name)];
        response.writeHead(200, { "content-type": type, "content-security-policy": POLICY });
        response.end(body);
    } catch {
        response.writeHead(404).end();
    }
}

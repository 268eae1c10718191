// The client's packages, for modules that lie outside its folder.
import { createRequire } from "node:module";

const require = createRequire(new URL("../../../client/package.json", import.meta.url));

export const { WebSocket, WebSocketServer } = require("ws");
export const playwright = () => require("playwright-core");
export const mcap = () => require("@mcap/core");
export const fzstd = () => require("fzstd");

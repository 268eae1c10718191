// How a page gets in: with a token, which its link brought and its tab keeps.

const KEY = "kiroweb.token";
const PATIENCE = 5000;
/** What can be offered as a subprotocol. */
const SPEAKABLE = /^[\w.~-]+$/;

/**
 * @typedef {object} Access
 * @property {() => Promise<string>} token empty: there is none. Rejected, it is asked for again
 *   with the next attempt
 * @property {() => Promise<boolean>} isServed asked when no connection comes about. True: the program
 *   is there and takes others, so it is the token. False: it asks for patience. Rejects when that
 *   cannot be found out
 * @property {(call: () => void) => void} [whenLinkOpened] calls whenever there may be a new token
 */

/** What every address of a page's gateway begins with: where one server has many sessions, each has
 * a prefix, `/s/NAME`. @param {string} [pathname] the page's */
function prefixOf(pathname = "") {
    return /^\/s\/[\w-]{1,64}(?=\/)/.exec(pathname)?.[0] ?? "";
}

/** The address of the gateway that served this page.
 * @param {{protocol: string, host: string, pathname?: string}} [location] @returns {string} */
export function gatewayAddress({ protocol, host, pathname } = globalThis.location) {
    return `${protocol === "https:" ? "wss:" : "ws:"}//${host}${prefixOf(pathname)}/kiroweb`;
}

/** What a link's fragment gives: `#token=...`, or `#code=...`, which is good for one exchange.
 * @param {string} hash */
function readFragment(hash) {
    const parameters = new URLSearchParams(hash.slice(1));
    return { token: parameters.get("token"), code: parameters.get("code") };
}

/** The access of a browser's tab. Reload, return and duplicate have what the link brought, since
 * `sessionStorage` goes with the tab; unlike a cookie it is not sent to the host's other ports. Each
 * session of a server has a token of its own.
 * @implements {Access} */
export class TabAccess {
    #window;
    /** @type {Promise<string> | null} */
    #asked = null;
    /** Where a browser allows no storage, this page alone has it. */
    #token = "";

    /** @param {any} [window] */
    constructor(window = globalThis) {
        this.#window = window;
    }

    /** A code is exchanged once, however many ask. */
    token() {
        this.#asked ??= this.#find().finally(() => {
            this.#asked = null;
        });
        return this.#asked;
    }

    /** A server that has not reached the program yet asks for patience. Where the page has a host of
     * its own, a server that does not know the program refuses that host. */
    async isServed() {
        const signal = AbortSignal.timeout(PATIENCE);
        const how = { method: "HEAD", cache: "no-store", signal };
        const { ok, status, headers } = await this.#window.fetch(`${this.#prefix()}/`, how);
        if (status === 403 || headers.has("Retry-After")) return false;
        if (!ok) throw new Error(`the program answered ${status}`);
        return true;
    }

    /** A link that is opened where the page is already changes the fragment and loads nothing.
     * @param {() => void} call */
    whenLinkOpened(call) {
        this.#window.addEventListener("hashchange", () => {
            const { token, code } = readFragment(this.#window.location.hash);
            if (token !== null || code !== null) this.token().then(call, call);
        });
    }

    async #find() {
        const { hash } = this.#window.location;
        const { token, code } = readFragment(hash);
        const brought = code === null ? token : await this.#exchange(code);
        if (brought !== null && SPEAKABLE.test(brought)) this.#keep(brought);
        if (token !== null || code !== null) this.#cleanAddress(hash);
        return this.#kept();
    }

    /** Null: the code was used already, or is none.
     * @param {string} code @returns {Promise<string | null>} */
    async #exchange(code) {
        const signal = AbortSignal.timeout(PATIENCE);
        const how = { method: "POST", body: code, cache: "no-store", signal };
        const response = await this.#window.fetch(`${this.#prefix()}/kiroweb/token`, how);
        if (response.status === 403) return null;
        if (!response.ok) throw new Error(`the program answered ${response.status}`);
        return (await response.text()).trim();
    }

    /** What else the link says stays, for a reload. @param {string} hash of the link that was taken */
    #cleanAddress(hash) {
        const { location, history } = this.#window;
        if (location.hash !== hash) return;
        const rest = hash.slice(1).split("&");
        const kept = rest.filter((one) => !/^(token|code)=/.test(one)).join("&");
        const address = location.pathname + location.search + (kept && `#${kept}`);
        history.replaceState(history.state, "", address);
    }

    #prefix() {
        return prefixOf(this.#window.location.pathname);
    }

    /** @param {string} token */
    #keep(token) {
        this.#token = token;
        try {
            this.#window.sessionStorage.setItem(KEY + this.#prefix(), token);
        } catch {
            // Kept here alone.
        }
    }

    #kept() {
        try {
            return this.#window.sessionStorage.getItem(KEY + this.#prefix()) ?? this.#token;
        } catch {
            return this.#token;
        }
    }
}

/** A token that is known, for a client that is no page. @param {string} token @returns {Access} */
export function knownToken(token) {
    const isServed = () => Promise.reject(new Error("there is no page that could be asked for"));
    return { token: async () => token, isServed };
}

/** This tab's; null where there is none.
 * @type {Access | null} */
export const tabAccess = typeof document === "undefined" ? null : new TabAccess();

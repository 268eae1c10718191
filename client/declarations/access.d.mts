/** The address of the gateway that served this page.
 * @param {{protocol: string, host: string, pathname?: string}} [location] @returns {string} */
export function gatewayAddress({ protocol, host, pathname }?: {
    protocol: string;
    host: string;
    pathname?: string;
}): string;
/** A token that is known, for a client that is no page. @param {string} token @returns {Access} */
export function knownToken(token: string): Access;
/** The access of a browser's tab. Reload, return and duplicate have what the link brought, since
 * `sessionStorage` goes with the tab; unlike a cookie it is not sent to the host's other ports. Each
 * session of a server has a token of its own.
 * @implements {Access} */
export class TabAccess implements Access {
    /** @param {any} [window] */
    constructor(window?: any);
    /** A code is exchanged once, however many ask. */
    token(): Promise<string>;
    /** A server that has not reached the program yet asks for patience. Where the page has a host of
     * its own, a server that does not know the program refuses that host. */
    isServed(): Promise<boolean>;
    /** A link that is opened where the page is already changes the fragment and loads nothing.
     * @param {() => void} call */
    whenLinkOpened(call: () => void): void;
    #private;
}
/** This tab's; null where there is none.
 * @type {Access | null} */
export const tabAccess: Access | null;
export type Access = {
    /**
     * empty: there is none. Rejected, it is asked for again
     * with the next attempt
     */
    token: () => Promise<string>;
    /**
     * asked when no connection comes about. True: the program
     * is there and takes others, so it is the token. False: it asks for patience. Rejects when that
     * cannot be found out
     */
    isServed: () => Promise<boolean>;
    /**
     * calls whenever there may be a new token
     */
    whenLinkOpened?: ((call: () => void) => void) | undefined;
};

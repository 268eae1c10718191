// How far apart colours, of red, green and blue from 0 to 255, are to those who see less of them, too.

const linear = (part) => (part <= 10.31475 ? part / 3294.6 : ((part / 255 + 0.055) / 1.055) ** 2.4);
const times = (matrix, [a, b, c]) => matrix.map(([x, y, z]) => x * a + y * b + z * c);

/** By the formula of the accessibility guidelines. */
export function contrast(one, other) {
    const luminance = (color) => times([[0.2126, 0.7152, 0.0722]], color.map(linear))[0] + 0.05;
    const [a, b] = [luminance(one), luminance(other)];
    return Math.max(a, b) / Math.min(a, b);
}

/** What becomes of light's red, green and blue: by Viénot, Brettel and Mollon (1999), and by Machado,
 * Oliveira and Fernandes (2009), severity 1. */
// prettier-ignore
export const SIGHTS = {
    normal: [[1, 0, 0], [0, 1, 0], [0, 0, 1]],
    protanViénot: [[0.11238, 0.88762, 0], [0.11238, 0.88762, 0], [0.00401, -0.00401, 1]],
    deutanViénot: [[0.29275, 0.70725, 0], [0.29275, 0.70725, 0], [-0.02234, 0.02234, 1]],
    protanMachado: [[0.152286, 1.052583, -0.204868], [0.114503, 0.786281, 0.099216], [-0.003882, -0.048116, 1.051998]],
    deutanMachado: [[0.367322, 0.860646, -0.227968], [0.280085, 0.672501, 0.047413], [-0.01182, 0.04294, 0.968881]],
    tritanMachado: [[1.255528, -0.076749, -0.178779], [-0.078411, 0.930809, 0.147602], [0.004733, 0.691367, 0.3039]],
};
// prettier-ignore
const XYZ = [[0.4339499, 0.3762098, 0.1898403], [0.2126729, 0.7151522, 0.072175], [0.0177566, 0.109468, 0.8727755]];

/** CIELAB of a colour as it is seen. */
export function labOf(color, sight) {
    const seen = times(sight, color.map(linear)).map((part) => Math.min(1, Math.max(0, part)));
    const rootOf = (part) => (part > 216 / 24389 ? Math.cbrt(part) : part * 7.787037 + 4 / 29);
    const [x, y, z] = times(XYZ, seen).map(rootOf);
    return [116 * y - 16, 500 * (x - y), 200 * (y - z)];
}

/** CIEDE2000, as Sharma, Wu and Dalal (2005) write it. */
export function difference([l1, a1, b1], [l2, a2, b2]) {
    const [cos, sin] = [Math.cos, Math.sin].map((of) => (turn) => of((turn * Math.PI) / 180));
    const share = (chroma) => Math.sqrt(chroma ** 7 / (chroma ** 7 + 25 ** 7));
    const stretch = 1.5 - share((Math.hypot(a1, b1) + Math.hypot(a2, b2)) / 2) / 2;
    const [c1, c2] = [Math.hypot(stretch * a1, b1), Math.hypot(stretch * a2, b2)];
    const hue = (a, b) => ((Math.atan2(b, stretch * a) * 180) / Math.PI + 360) % 360;
    const [h1, h2] = [hue(a1, b1), hue(a2, b2)];
    const turn = ((h2 - h1 + 540) % 360) - 180;
    const [l, c, h] = [(l1 + l2) / 2, (c1 + c2) / 2, h1 + turn / 2];
    const weight =
        1 - 0.17 * cos(h - 30) + 0.24 * cos(2 * h) + 0.32 * cos(3 * h + 6) - 0.2 * cos(4 * h - 63);
    const lightness = (l2 - l1) / (1 + (0.015 * (l - 50) ** 2) / Math.sqrt(20 + (l - 50) ** 2));
    const chroma = (c2 - c1) / (1 + 0.045 * c);
    const across = (2 * Math.sqrt(c1 * c2) * sin(turn / 2)) / (1 + 0.015 * c * weight);
    const blue = Math.exp(-(((((h + 360) % 360) - 275) / 25) ** 2));
    const rotation = -2 * sin(60 * blue) * share(c) * chroma * across;
    return Math.sqrt(lightness ** 2 + chroma ** 2 + across ** 2 + rotation);
}

// For all JavaScript of the project. What types say is the compiler's part.
import js from "@eslint/js";
import globals from "globals";

export default [
    { ignores: ["client/declarations/", "client/dist/", "**/node_modules/", "build/"] },
    js.configs.recommended,
    {
        languageOptions: { globals: { ...globals.browser } },
        linterOptions: { reportUnusedDisableDirectives: "error" },
        rules: {
            "array-callback-return": "error",
            "consistent-return": "error",
            curly: ["error", "multi-line"],
            eqeqeq: "error",
            "no-implicit-globals": "error",
            "no-self-compare": "error",
            "no-shadow": "error",
            "no-unused-private-class-members": "error",
            "no-use-before-define": ["error", { functions: false, classes: false }],
            "no-var": "error",
            "object-shorthand": "error",
            "prefer-const": "error",
            "prefer-template": "off",
        },
    },
    {
        files: [
            "tests/**",
            "proofs/**",
            "bench/page/**",
            "client/*.config.mjs",
            "client/build.mjs",
        ],
        languageOptions: { globals: { ...globals.node, kirowebPage: "readonly" } },
    },
];

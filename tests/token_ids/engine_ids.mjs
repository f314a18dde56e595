// Token ids of the program's own encoder beside those of the package: every text the same ids.
//
//   node engine_ids.mjs ENCODE_LINES ZYM CORPUS SOURCES WORK_FOLDER
//
// WORK_FOLDER holds the checkpoint that compare.mjs made. SOURCES is a folder; its source files and
// documents are texts too, and so are random strings of characters of all planes.
import { execFileSync } from "node:child_process";
import { readFileSync, readdirSync } from "node:fs";
import { join } from "node:path";

import { packageEncoders } from "./package_encoder.mjs";

const kRandomTexts = 20000;
const kShownDifferences = 10;
const [encodeLines, zym, corpus, sources, work] = process.argv.slice(2);
const { full, plain } = packageEncoders();

function makeContainer(form) {
  const container = join(work, `engine_${form}.zym`);
  execFileSync(zym, ["convert", join(work, "checkpoint"), container, "--vocab", form, "--force"]);
  return container;
}

function idsOf(container, texts, options = []) {
  const input = texts.map((text) => JSON.stringify(text)).join("\n") + "\n";
  const output = execFileSync(encodeLines, [container, ...options], { input, maxBuffer: 2 ** 31 });
  return output.toString().trimEnd().split("\n").map((line) => JSON.parse(line));
}

const sameIds = (a, b) => a.length === b.length && a.every((id, i) => id === b[i]);

// The part of both that differs, for people.
function difference(ours, known) {
  let at = 0;
  while (ours[at] === known[at]) ++at;
  return `from token ${at}: engine ${ours.slice(at, at + 8)}, package ${known.slice(at, at + 8)} ` +
    JSON.stringify(plain.pieces(known.slice(at, at + 8)));
}

// True when every text has the package's ids; of the others it prints some.
function agrees(name, container, texts, reference, options) {
  const ours = idsOf(container, texts, options);
  const different = [];
  let tokens = 0;
  texts.forEach((text, i) => {
    const known = reference.encode(text);
    tokens += known.length;
    if (!sameIds(ours[i], known)) different.push([text, difference(ours[i], known)]);
  });
  const same = texts.length - different.length;
  console.log(`${name}: ${same} of ${texts.length} texts identical, ${tokens} tokens`);
  for (const [text, where] of different.slice(0, kShownDifferences)) {
    console.log(`  ${JSON.stringify(text.slice(0, 200))}: ${where}`);
  }
  return different.length === 0;
}

function corpusTexts() {
  const groups = JSON.parse(readFileSync(corpus));
  return groups.flatMap(({ texts }) => texts.map((entry) => entry.text ?? entry));
}

// Whole files, and the same with other line ends and indents.
function sourceTexts() {
  const folders = ["engine", "tokenizer", "host", "convert", "docs", "tests/token_ids", "scripts"];
  const kinds = /\.(cpp|h|md|mjs|json|txt|1)$/;
  const files = folders.flatMap((folder) =>
    readdirSync(join(sources, folder), { recursive: true, withFileTypes: true })
      .filter((entry) => entry.isFile() && kinds.test(entry.name))
      .map((entry) => join(entry.parentPath ?? entry.path, entry.name)));
  const texts = files.sort().map((file) => readFileSync(file, "utf8"));
  return texts.flatMap((text) => [
    text,
    text.replaceAll("\n", "\r\n"),
    text.replaceAll("  ", "\t"),
    text.replaceAll("\n", "\n\n \n"),
  ]);
}

// Repeatable: "Fast Splittable Pseudorandom Number Generators" (2014), cut to 32 bits.
let state = 1;
function random(n) {
  state = (state + 0x9e3779b9) >>> 0;
  let z = state;
  z = Math.imul(z ^ (z >>> 16), 0x85ebca6b);
  z = Math.imul(z ^ (z >>> 13), 0xc2b2ae35);
  return ((z ^ (z >>> 16)) >>> 0) % n;
}

// Code points that both sides' tables know alike, assigned or not: the newer tables hold characters
// that the older ones take for unassigned.
function comparablePoints() {
  const { unicode, ranges } = JSON.parse(execFileSync(encodeLines, ["--assigned"], { maxBuffer: 2 ** 24 }));
  const assigned = new Uint8Array(0x110000);
  for (const [first, last] of ranges) assigned.fill(1, first, last + 1);
  const points = [];
  let left = 0;
  for (let code = 0; code < 0x110000; ++code) {
    if (code >= 0xd800 && code <= 0xdfff) continue;
    const known = !/\p{Cn}/u.test(String.fromCodePoint(code));
    if (known === (assigned[code] === 1)) points.push(code);
    else ++left;
  }
  console.log(`tables: Unicode ${unicode} and ${process.versions.unicode}; left out: ${left} code points ` +
    "that one of them alone has assigned");
  return points;
}

function randomTexts() {
  const points = comparablePoints();
  const among = (pattern) => points.filter((code) => pattern.test(String.fromCodePoint(code)));
  const pools = [
    points,
    points.filter((code) => code < 0x10000),
    points.filter((code) => code < 0x80),
    points.filter((code) => code < 0x600),
    among(/\p{M}/u),
    among(/\p{White_Space}/u),
    among(/\p{N}/u),
    among(/\p{Cn}/u),
    among(/[\u1100-\u11ff\uac00-\ud7a3]/u),
    among(/[^\p{L}\p{M}\p{N}]/u).filter((code) => code < 0x10000),
    Array.from("aeiouAEIOUsStTrReEvVmMlLdDſ'’\n\r\t  ..,;!?({[½”»0123456789", (c) => c.codePointAt(0)),
    Array.from("aeocsAEOnu\u0301\u0300\u0327\u0323\u0308\u0304\u031b\u0345\u05b0\u093c", (c) => c.codePointAt(0)),
  ];
  const character = (pool) => String.fromCodePoint(pool[random(pool.length)]);
  return Array.from({ length: kRandomTexts }, () => {
    let text = "";
    for (let runs = 1 + random(6); runs > 0; --runs) {
      const pool = pools[random(pools.length)];
      for (let n = 1 + random(6); n > 0; --n) text += character(pool);
    }
    return text;
  });
}

const longTexts = [
  ..."a \n\t½.é字",
  "\u0301",
  "ab",
  "a\u0301",
  " \n",
  "'s",
].map((part) => part.repeat(2000));

const specials = [
  "<|im_start|>user\nHello!\n<|im_end|>\n<|im_start|>assistant\n<think>\n\n</think>\n\n",
  " <|im_end|> <|im_end|>\n<|im_end|>e\u0301<|im_en|><|endoftext|>",
  "\u0301<|im_end|>\u0301",
];

const alphabet = makeContainer("alphabet");
const sound = [
  agrees("corpus", alphabet, corpusTexts(), plain),
  agrees("source files", alphabet, sourceTexts(), plain),
  agrees("long runs", alphabet, longTexts, plain),
  agrees("random texts", alphabet, randomTexts(), plain),
  agrees("special tokens as text", alphabet, specials, plain),
  agrees("special tokens", alphabet, [...specials, ...sourceTexts()], full, ["--raw"]),
  // Texts with the character of a raw vocabulary's space mark are the only ones it may spell otherwise.
  agrees("raw form: corpus", makeContainer("raw"), corpusTexts(), plain),
  agrees("raw form: random texts", makeContainer("raw"),
    randomTexts().filter((text) => !text.normalize("NFC").includes("\u0120")), plain),
];
process.exit(sound.every(Boolean) ? 0 : 1);

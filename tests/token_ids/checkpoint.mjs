// A checkpoint folder with another vocabulary: the demonstration checkpoint with a given tokenizer
// and an embedding of as many rows. The rows are zero; only the vocabulary is of interest.
import { closeSync, mkdirSync, openSync, readFileSync, truncateSync, writeFileSync, writeSync } from "node:fs";
import { join } from "node:path";

const kLengthBytes = 8;

// Tensors of a safetensors file by name, and where their data start.
function readHeader(bytes) {
  const start = kLengthBytes + Number(bytes.readBigUInt64LE(0));
  return { tensors: JSON.parse(bytes.toString("utf8", kLengthBytes, start)), start };
}

// The embedding comes last, as a hole at the end of the file.
function writeWeights(source, target, rows) {
  const bytes = readFileSync(source);
  const { tensors, start } = readHeader(bytes);
  delete tensors.__metadata__;
  const embedding = Object.keys(tensors).find((name) => name.endsWith("embed_tokens.weight"));
  const [, columns] = tensors[embedding].shape;
  const header = {};
  const parts = [];
  let at = 0;
  for (const [name, tensor] of Object.entries(tensors)) {
    if (name === embedding) continue;
    const part = bytes.subarray(start + tensor.data_offsets[0], start + tensor.data_offsets[1]);
    header[name] = { ...tensor, data_offsets: [at, at + part.length] };
    parts.push(part);
    at += part.length;
  }
  const end = at + rows * columns * 2;
  header[embedding] = { dtype: "BF16", shape: [rows, columns], data_offsets: [at, end] };
  const text = Buffer.from(JSON.stringify(header));
  const length = Buffer.alloc(kLengthBytes);
  length.writeBigUInt64LE(BigInt(text.length));
  const file = openSync(target, "w");
  for (const part of [length, text, ...parts]) writeSync(file, part);
  closeSync(file);
  truncateSync(target, kLengthBytes + text.length + end);
}

function tokenCount(tokenizer) {
  let last = 0;
  for (const id of Object.values(tokenizer.model.vocab)) last = Math.max(last, id);
  for (const token of tokenizer.added_tokens) last = Math.max(last, token.id);
  return last + 1;
}

export function writeCheckpoint(demo, folder, tokenizer, tokenizerConfig) {
  const rows = tokenCount(tokenizer);
  const config = JSON.parse(readFileSync(join(demo, "config.json")));
  (config.text_config ?? config).vocab_size = rows;
  mkdirSync(folder, { recursive: true });
  writeFileSync(join(folder, "config.json"), JSON.stringify(config));
  writeFileSync(join(folder, "tokenizer.json"), JSON.stringify(tokenizer));
  writeFileSync(join(folder, "tokenizer_config.json"), JSON.stringify(tokenizerConfig));
  writeWeights(join(demo, "model.safetensors"), join(folder, "model.safetensors"), rows);
}

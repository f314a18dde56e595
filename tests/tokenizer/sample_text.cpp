#include "tests/tokenizer/sample_text.h"

#include <random>
#include <utility>

namespace kel::testing {
namespace {

constexpr std::string_view kEnglish =
    R"(The ferry left the harbour a little after six, when the lamps along the quay were still burning and the water had the colour of slate. Nobody spoke much. A woman in a green coat counted the crates on the deck, made a mark in her notebook for each of them, and began again from the other end because the numbers didn't agree. "Forty-one," she said at last. "There should be forty-two." The captain shrugged; he'd carried stranger cargoes than this, and in his experience the missing thing was usually found underneath the thing that had been counted twice.

By noon the wind had turned. It came down from the mountains in long cold breaths that pushed the smoke flat against the waves, and the passengers who had stood at the rail since morning went below one after another to drink coffee and complain. I stayed where I was. From there you could see the whole coast: the white villages, the road that climbed between them like a dropped thread, the three chimneys of the old cement works, and behind everything the glacier, which seemed to shine with a light of its own. We're always told that such places are empty, but they aren't; they've simply learned to keep quiet while strangers are looking.

Measure twice and cut once, my grandfather used to say, and then he would measure a third time. He built clocks. In 1958 he made eleven of them, in 1959 only seven, and every one was signed on the inside, where its owner would never see it. When I asked him why, he answered that a maker's name is a promise to whoever repairs the work, not an advertisement to whoever buys it. I think about that sentence more often than about anything else he told me, though it took thirty years and a fairly expensive mistake before I understood what it meant.

How does a river decide where to go? It doesn't, of course: it tries every direction at once, with great patience, and keeps whatever happens to work. Engineers who study floods say that the simplest models fail for exactly this reason. They describe the water, but not the ground that the water is changing while it moves. A good model needs both halves, and it needs to know how quickly each of them forgets the other. That's harder than it sounds! Even so, a few hundred lines of careful arithmetic can predict tomorrow's level to within 5 centimetres, which is enough to decide whether the school should open.)";

constexpr std::string_view kGerman =
    R"(Am späten Nachmittag öffnete der Gärtner das Tor und ließ die Kinder über die Wiese laufen. Überall lagen Äpfel im Gras, süß und ein wenig müde von der Sonne. »Nehmt nur die großen«, rief er, »die kleinen brauche ich für den Most!« Später saßen alle an einem langen Tisch, aßen Brot mit Käse und hörten zu, wie der Regen auf das Blechdach schlug.)";

constexpr std::string_view kFrench =
    R"(L'hiver dernier, à l'époque où les rivières étaient gelées, ma sœur décida d'apprendre le métier de relieur. Elle acheta du papier, de la colle, une presse déjà ancienne ; elle s'installa près de la fenêtre et, pendant des semaines, on n'entendit plus que le bruit régulier de l'aiguille. « C'est un travail très lent, disait-elle, mais il ne ment jamais. »)";

constexpr std::string_view kRussian =
    R"(Ранним утром поезд остановился на маленькой станции, и никто не вышел. Снег лежал на крыше, на скамейке, на старых часах, которые давно показывали одно и то же время. Проводник посмотрел в окно, покачал головой и сказал, что в прошлом году здесь ещё продавали пироги с капустой. Потом поезд тронулся, и станция медленно уплыла назад вместе со своим светом и тишиной.)";

constexpr std::string_view kGreek =
    R"(Το καλοκαίρι οι ψαράδες ξυπνούσαν πριν από τον ήλιο και μάζευαν τα δίχτυα χωρίς να μιλούν. Η θάλασσα ήταν ήσυχη, σχεδόν άσπρη, και μόνο οι γλάροι έκαναν φασαρία πάνω από τη βάρκα.)";

constexpr std::string_view kArabic =
    R"(في السوق القديم يجلس رجل يصلح الساعات ولا يسأل أحدا عن الوقت. يقول إن كل ساعة لها صوت خاص، وإن من يسمع جيدا يعرف ما الذي انكسر فيها قبل أن يفتحها. عمره ٧٣ سنة ويداه ثابتتان.)";

constexpr std::string_view kHindi =
    R"(गाँव के बाहर एक पुराना कुआँ था जिसके पास बच्चे शाम को खेलते थे। पानी ठंडा और मीठा था, और हर घर में उसी की कहानी सुनाई जाती थी।)";

constexpr std::string_view kJapanese =
    R"(朝早く、駅前の小さなパン屋に明かりがつく。店の主人は昨日の残りを数え、新しい生地をこねながらラジオを聞いている。「今日は雨になるそうですよ」と最初の客が言った。主人は笑って、温かいパンを二つ袋に入れた。)";

constexpr std::string_view kChinese =
    R"(老人每天早上都到河边散步，看水，也看人。他说河水从来不着急，可是它比谁都走得远。孩子们不太明白，只是跟着他把石头一块一块地扔进水里。)";

constexpr std::string_view kSymbols =
    R"(Temperatures: −4 °C … +19 °C; price 3.50 € (was £4.20) → 17 % less. Naïve café, “quoted”, ‘single’, ½ × ¾ ≈ 0.375. 🙂🚢🌧️ done ✓)";

constexpr std::string_view kProgram =
    R"(int sum(const int* values, int n) {
	int total = 0;
	for (int i = 0; i < n; ++i) {
		if (values[i] != 0 && values[i] % 2 == 0) total += values[i];
	}
	return total;  // 0 when n <= 0
}

def area(width, height=10):
    """Rectangle, in square metres."""
    return {"width": width, "area": width * height}
)";

std::vector<std::string> englishWords() {
  std::vector<std::string> words;
  std::string word;
  for (const char c : kEnglish) {
    if (c >= 'a' && c <= 'z') {
      word += c;
    } else if (!word.empty()) {
      words.push_back(std::exchange(word, {}));
    }
  }
  return words;
}

class EnglishGenerator {
 public:
  explicit EnglishGenerator(uint32_t seed) : rng(seed), words(englishWords()) {}

  std::string sentence() {
    std::string text = word();
    text[0] = static_cast<char>(text[0] - 'a' + 'A');
    const size_t nWords = 5 + below(14);
    for (size_t i = 1; i < nWords; ++i) {
      text += below(12) == 0 ? ", " : " ";
      text += below(40) == 0 ? std::to_string(below(3000)) : word();
      if (below(60) == 0) {
        text += "'s";
      }
    }
    return below(10) == 0 ? "\"" + text + "!\"" : text + ".";
  }

  size_t below(size_t limit) { return rng() % limit; }

 private:
  // Mostly the plain word, which keeps the frequencies of the sample; else a new one.
  std::string word() {
    constexpr std::string_view kPrefixes[] = {"un", "re", "over", "out", "fore", "mis"};
    constexpr std::string_view kSuffixes[] = {"ing", "ed", "ly", "ness", "er", "s", "able", "less"};
    std::string text = words[below(words.size())];
    switch (below(16)) {
      case 0:
        return text + words[below(words.size())];
      case 1:
        return text.append(kSuffixes[below(std::size(kSuffixes))]);
      case 2:
        return std::string(kPrefixes[below(std::size(kPrefixes))]) + text;
      default:
        return text;
    }
  }

  std::mt19937 rng;
  std::vector<std::string> words;
};

std::string generated(size_t nBytes, uint32_t seed, std::string_view paragraphBreak) {
  EnglishGenerator generator(seed);
  std::string text;
  while (text.size() < nBytes) {
    text += generator.sentence();
    text += generator.below(6) == 0 ? paragraphBreak : " ";
  }
  return text;
}

}  // namespace

const std::vector<SampleText>& sampleTexts() {
  static const std::vector<SampleText> samples = {
      {"English", kEnglish}, {"German", kGerman},   {"French", kFrench},   {"Russian", kRussian},
      {"Greek", kGreek},     {"Arabic", kArabic},   {"Hindi", kHindi},     {"Japanese", kJapanese},
      {"Chinese", kChinese}, {"symbols", kSymbols}, {"program", kProgram},
  };
  return samples;
}

std::string allSampleText() {
  std::string all;
  for (const SampleText& sample : sampleTexts()) {
    all.append(sample.text).append("\n");
  }
  return all;
}

std::string generatedEnglish(size_t nBytes, uint32_t seed) {
  return generated(nBytes, seed, "\n\n");
}

std::string generatedLine(size_t nBytes, uint32_t seed) {
  return generated(nBytes, seed, " ");
}

}  // namespace kel::testing

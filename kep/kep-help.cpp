// The help menu reader and the paged help text.
#include "kep-help.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "kep-decode.h"
#include "kep-front.h"
#include "kep-interrupt.h"
#include "kep.h"

namespace {

std::string top_level_file;
// The command whose item the next top-level help opens directly.
std::string opening_topic;

}  // namespace

void reset_help() {
  top_level_file.clear();
  opening_topic.clear();
}

namespace {

struct Section {
  int menu = 0;
  int item = 0;
  std::vector<std::string> lines;
};

// Reads the answer to a prompt; false at the end of input.
bool read_answer(const char *prompt, std::string &answer) {
  fputs(prompt, stdout);
  fflush(stdout);
  char line[KEP_LINE];
  // Ctrl-C leaves the help like "q".
  if (!wait_for_input(stdin)) {
    printf("\n");
    return false;
  }
  if (!get_line(stdin, line)) return false;
  answer = line;
  while (!answer.empty() && (answer.back() == '\n' || answer.back() == '\r')) answer.pop_back();
  size_t first = answer.find_first_not_of(" \t");
  answer = first == std::string::npos ? "" : answer.substr(first);
  while (!answer.empty() && (answer.back() == ' ' || answer.back() == '\t')) answer.pop_back();
  return true;
}

const Section *find_section(const std::vector<Section> &sections, int menu, int item) {
  for (const Section &s : sections)
    if (s.menu == menu && s.item == item) return &s;
  return nullptr;
}

void print_page(const Section *s) {
  if (s != nullptr)
    for (const std::string &l : s->lines) fputs(l.c_str(), stdout);
  printf("----------------------------------------------\n");
  printf("--- choose item: 0 = main menu, return = back \n");
  printf("----------------------------------------------\n");
}

}  // namespace

int help_menu(int level, const char *file_name) {
  const char *home = getenv("KEP_HOME");
  if (home == nullptr) {
    printf("For help, quit and define the environment variable KEP_HOME, and then re-start.\n");
    return 1;
  }
  std::string path = std::string(home) + "/documentation/" + file_name;
  file_ptr file(fopen(path.c_str(), "r"));
  if (file == nullptr) {
    printf("Error: cannot open the file %s.\n", path.c_str());
    printf("The environment variable KEP_HOME is set to %s\n", home);
    printf("If this is incorrect, quit, define this environment variable, and re-start.\n");
    return 1;
  }
  if (level == 0) top_level_file = file_name;
  printf("Help from file %s\n", path.c_str());

  std::vector<Section> sections;
  char line[KEP_LINE];
  while (get_line(file.get(), line)) {
    if (line[0] == '!') {
      Section s;
      if (sscanf(line + 1, "%d %d", &s.menu, &s.item) < 2) s.item = 0;
      sections.push_back(s);
    } else if (!sections.empty()) {
      sections.back().lines.push_back(line);
    }
  }
  file.reset();

  // Sections must run menu by menu, item by item.
  int m = 0, i = 0, nmenus = 0;
  std::vector<int> items;
  for (size_t k = 0; k < sections.size(); k++) {
    const Section &s = sections[k];
    if (s.menu == m && (s.item == i + 1 || s.item == i)) {
      i = s.item;
    } else if (s.menu == m + 1) {
      m = s.menu;
      i = 0;
    } else {
      printf("Warning: menu entry %d in file %s is %d %d,\n", static_cast<int>(k), path.c_str(), s.menu,
             s.item);
      printf("but it should be either %d %d or %d %d,\n", m, i + 1, m + 1, i);
      return 1;
    }
    if (s.menu >= static_cast<int>(items.size())) items.resize(s.menu + 1, 0);
    if (s.item > items[s.menu]) items[s.menu] = s.item;
    if (s.menu > nmenus) nmenus = s.menu;
  }

  // Item i of menu m is section (m, i). On the main menu a number for which
  // menu 0 has no section of its own opens menu i, so the main menu offers
  // items up to the larger of its own highest item and the highest menu.
  auto item_count = [&](int m) {
    int own = m < static_cast<int>(items.size()) ? items[m] : 0;
    return m == 0 && nmenus > own ? nmenus : own;
  };
  int menu = 0, item = 0;
  if (level == 0 && !opening_topic.empty()) {
    // An item documents a command when its text begins with the command's name.
    bool found = false;
    for (const Section &s : sections) {
      char first[KEP_LINE] = "";
      if (s.item < 1 || s.lines.empty() || next_word(s.lines[0].c_str(), first) == nullptr) continue;
      if (opening_topic == first) {
        menu = s.menu, item = s.item, found = true;
        break;
      }
    }
    if (!found) kep_textf(0, "There is no help item for `%s'.", opening_topic.c_str());
    opening_topic.clear();
  }
  std::string answer;
  while (true) {
    const Section *page = find_section(sections, menu, item);
    // An item whose text is the line "&pages" opens the paged help text.
    if (item > 0 && page != nullptr && !page->lines.empty() && page->lines[0].rfind("&pages", 0) == 0) {
      print_help_page((std::string(home) + "/documentation/kep-pages.txt").c_str());
      item = 0;
      continue;
    }
    print_page(page);
    const bool top = menu == 0 && item == 0;
    if (!read_answer(top ? "help > " : "help >> ", answer)) break;
    int count = item_count(menu);
    if (answer == "q") break;
    if (answer.empty() || answer == "b") {
      // Back one level: from an item to its menu, from a menu to the main menu.
      if (top) break;
      if (item > 0)
        item = 0;
      else
        menu = 0;
      continue;
    }
    // Numbers are read as "%d" reads them: "2nd" is 2.
    int choice = -1;
    if (sscanf(answer.c_str(), "%d", &choice) == 1 && choice == 0) {
      menu = item = 0;
      continue;
    }
    if (choice >= 1 && choice <= count) {
      if (menu == 0 && find_section(sections, 0, choice) == nullptr) {
        menu = choice;
        item = 0;
      } else {
        item = choice;
      }
      continue;
    }
    printf("Bad option. Choose '0', 'b', 'q', or a number from 1 to %d\n", count);
  }
  if (level == 1 && !top_level_file.empty()) return help_menu(0, top_level_file.c_str());
  return 0;
}

int print_help_page(const char *file_name) {
  file_ptr file(fopen(file_name, "r"));
  if (file == nullptr) {
    printf("Error: cannot open the file %s.\n", file_name);
    return 1;
  }
  std::vector<std::string> lines;
  // Keys are chapter * 10000 + section * 100 + unit, in 64 bits so that any
  // integers a page file holds combine without overflow.
  std::vector<long long> keys;
  std::vector<size_t> starts;
  char line[KEP_LINE];
  int number = 0, last_chapter = 0;
  while (get_line(file.get(), line)) {
    number++;
    if (line[0] == '!') {
      int c = 0, s = 0, u = 0;
      if (sscanf(line + 1, "%d %d %d", &c, &s, &u) != 3) {
        file.reset();
        kep_textf(2, "Error reading the direction integers on line %d", number);
        return 1;
      }
      keys.push_back(c * 10000LL + s * 100LL + u);
      starts.push_back(lines.size() + 1);
      last_chapter = c;
    }
    lines.push_back(line);
  }
  file.reset();
  if (keys.empty()) return 0;
  keys.push_back((last_chapter + 1LL) * 10000);
  starts.push_back(lines.size() + 1);

  size_t page = 0;
  std::string answer;
  while (true) {
    for (size_t l = starts[page]; l + 1 < starts[page + 1] && l < lines.size(); l++)
      if (lines[l][0] != '\f') fputs(lines[l].c_str(), stdout);
    printf("             _________________________________________________________ \n");
    printf("            |  q = quit     m = menu          n = next       b = back |\n");
    printf("            |__________________________<return> = next________________|\n");
    if (!read_answer("volume help >>", answer) || answer == "q") break;
    const size_t npages = keys.size() - 1;
    const long long key = keys[page];
    long long target = -1;
    if (answer.empty() || answer == "n") {
      if (page + 1 < npages) page++;
      continue;
    }
    if (answer == "b") {
      if (page > 0) page--;
      continue;
    }
    if (answer == "m") {
      target = key % 100 != 0 ? key - key % 100 : key % 10000 != 0 ? key - key % 10000 : 0;
    } else {
      int choice = 0;
      if (sscanf(answer.c_str(), "%d", &choice) != 1 || choice < 0) continue;
      target = key % 10000 == 0 && key != 0 ? key + choice * 100LL
               : key % 100 == 0 && key != 0 ? key + choice
               : key == 0                   ? choice * 10000LL
                                            : key - key % 100 + choice;
    }
    for (size_t p = 0; p < npages; p++)
      if (keys[p] == target) page = p;
  }
  return 0;
}

int help_command(const char *arguments) {
  char topic[KEP_LINE];
  opening_topic = next_word(arguments, topic) != nullptr ? topic : "";
  const int result = help_menu(0, "kep-menu.txt");
  opening_topic.clear();
  return result;
}

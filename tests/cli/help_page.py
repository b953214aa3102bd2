"""What `kab --help` tells, for tests that go over every command without knowing any by name."""
import re
import subprocess


class Page:
    """The help of one command, or of the tool itself."""

    def __init__(self, kab, *command):
        self.text = subprocess.run([kab, *command, "--help"], check=True, stdout=subprocess.PIPE, text=True).stdout
        self.sections = {"": ""}
        title = ""
        for line in self.text.splitlines():
            heading = re.fullmatch(r"([A-Z][a-z]+(?: [a-z]+)?):", line)
            if heading:
                title = heading[1]
            self.sections[title] = self.sections.get(title, "") + line + "\n"
        # -o, --output FILE
        options = self.sections.get("Options", "") + self.sections.get("Global options", "")
        self.options = {}
        for names, value in re.findall(r"^  (-[\w-]+(?:, -[\w-]+)*)(?: (\S+))?(?=  |$)", options, re.M):
            for name in names.split(", "):
                self.options[name] = value
        self.arguments = re.findall(r"^  (\S+)", self.sections.get("Arguments", ""), re.M)
        self.examples = re.findall(r"^  (\S.*)", self.sections.get("Examples", ""), re.M)

    @property
    def long_options(self):
        return {name for name in self.options if name.startswith("--")}


def commands(kab):
    return re.findall(r"^  (\S+)  ", Page(kab).sections["Commands"], re.M)

"""For mkdocs: links to folders lead to their README, or stand as plain text where they have none."""
import os
import re

LINK = re.compile(r"(!?)\[([^\]]+)\]\(([^)#\s]+)\)")


def on_page_markdown(markdown, page, config, files):
    folder = os.path.dirname(os.path.join(config["docs_dir"], page.file.src_path))

    def replace(match):
        image, text, target = match.groups()
        path = os.path.normpath(os.path.join(folder, target))
        if "://" in target or os.path.isfile(path):
            return match.group(0)
        if os.path.isfile(os.path.join(path, "README.md")):
            return f"{image}[{text}]({target.rstrip('/')}/README.md)"
        project = os.path.dirname(config["config_file_path"])
        source = os.path.relpath(path, config["docs_dir"])
        # A file or folder of the project that the site does not have: not broken.
        return text if os.path.exists(os.path.join(project, source)) else match.group(0)

    return LINK.sub(replace, markdown)
